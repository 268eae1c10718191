#include "Credentials.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "process/Descriptor.hpp"
#include "text/Escape.hpp"

namespace kirolink {
namespace {

/// More than two lines need; what is longer is none.
constexpr std::size_t kMostBytes = 64UL * 1024;

[[noreturn]] void failToRead(const std::string& name) {
    throw std::runtime_error("cannot read " + text::escaped(name) + ": " +
                             std::generic_category().message(errno));
}

/// Asks the open file, so that nobody can put another in its place between the two.
void requireOwn(int file, const std::string& name) {
    struct stat status {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::runtime_error(text::escaped(name) + " is not a file");
    }
    const bool isOwn = status.st_uid == geteuid() || status.st_uid == 0;
    if (!isOwn || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::runtime_error("others than its owner may read " + text::escaped(name) +
                                 " (chmod 600)");
    }
}

std::string takeLine(std::string& bytes) {
    const auto end = bytes.find('\n');
    std::string line = bytes.substr(0, end);
    bytes.erase(0, end == std::string::npos ? end : end + 1);
    if (line.ends_with('\r')) line.pop_back();
    return line;
}

}  // namespace

Credentials readCredentials(const std::string& file) {
    const process::Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (opened.get() < 0) failToRead(file);
    requireOwn(opened.get(), file);
    Credentials credentials;
    if (file.ends_with(".creds")) {
        credentials.natsFile = file;
        return credentials;
    }
    std::string bytes;
    if (!process::readUpTo(opened.get(), kMostBytes, bytes)) failToRead(file);
    const bool isTooLong = bytes.size() == kMostBytes;
    credentials.user = takeLine(bytes);
    credentials.password = takeLine(bytes);
    if (isTooLong || credentials.user.empty() || credentials.password.empty() ||
        bytes.find_first_not_of(" \t\r\n") != std::string::npos) {
        throw std::runtime_error(text::escaped(file) +
                                 " should hold two lines: a user's name and the password");
    }
    return credentials;
}

}  // namespace kirolink
