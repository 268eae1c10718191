#include "Credentials.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <system_error>

#include "text/Escape.hpp"

namespace kirolink {
namespace {

constexpr std::size_t kMostBytes = 64UL * 1024;

class File {
  public:
    explicit File(const std::string& name) : fDescriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (fDescriptor < 0) {
            throw std::runtime_error("cannot read " + text::escaped(name) + ": " +
                                     std::generic_category().message(errno));
        }
    }
    ~File() { close(fDescriptor); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] int get() const { return fDescriptor; }

  private:
    const int fDescriptor;
};

/// Asks the open file, so that nobody can put another in its place between the two.
void requireOwn(const File& file, const std::string& name) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::runtime_error(text::escaped(name) + " is not a file");
    }
    const bool isOwn = status.st_uid == geteuid() || status.st_uid == 0;
    if (!isOwn || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::runtime_error("others than its owner may read " + text::escaped(name) +
                                 " (chmod 600)");
    }
}

std::string readAll(const File& file, const std::string& name) {
    std::string bytes;
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    while ((count = read(file.get(), piece.data(), piece.size())) > 0) {
        bytes.append(piece.data(), static_cast<std::size_t>(count));
        if (bytes.size() > kMostBytes) count = -1;
        if (count < 0) break;
    }
    if (count < 0) throw std::runtime_error("cannot read " + text::escaped(name));
    return bytes;
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
    const File opened(file);
    requireOwn(opened, file);
    Credentials credentials;
    if (file.ends_with(".creds")) {
        credentials.natsFile = file;
        return credentials;
    }
    std::string bytes = readAll(opened, file);
    credentials.user = takeLine(bytes);
    credentials.password = takeLine(bytes);
    if (credentials.user.empty() || credentials.password.empty() ||
        bytes.find_first_not_of(" \t\r\n") != std::string::npos) {
        throw std::runtime_error(text::escaped(file) +
                                 " should hold two lines: a user's name and the password");
    }
    return credentials;
}

}  // namespace kirolink
