#include "TokenFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "process/Descriptor.hpp"
#include "secret/RandomHex.hpp"
#include "text/Hex.hpp"

namespace kirofigures::detail {

namespace {

constexpr std::size_t kBytes = 32;
constexpr std::size_t kDigits = 2 * kBytes;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// A file beside `file` that holds a new token and that nobody else knows; gone with this.
class Draft {
  public:
    explicit Draft(const std::string& file) : fPath(file + ".XXXXXX") {
        const std::string line = secret::randomHex(kBytes) + '\n';
        // Readable for the owner only.
        const process::Descriptor made(::mkostemp(fPath.data(), O_CLOEXEC));
        if (made.get() < 0) fail("tokenFile: " + file + " cannot be made");
        if (process::writeAll(made.get(), line)) return;
        const int error = errno;
        ::unlink(fPath.c_str());
        errno = error;
        fail("tokenFile: " + file + " cannot be written");
    }
    ~Draft() { ::unlink(fPath.c_str()); }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    [[nodiscard]] const std::string& path() const noexcept { return fPath; }

  private:
    std::string fPath;
};

std::string read(const process::Descriptor& descriptor, const std::string& file) {
    struct stat known {};
    if (::fstat(descriptor.get(), &known) != 0) fail("tokenFile: " + file + " cannot be read");
    if ((known.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::invalid_argument("tokenFile: others may read " + file + "; chmod 600 ends that");
    }
    std::string token;
    if (!process::readUpTo(descriptor.get(), kDigits + 2, token)) {
        fail("tokenFile: " + file + " cannot be read");
    }
    if (token.ends_with('\n')) token.pop_back();
    if (text::isHex(token, kDigits)) return token;
    throw std::invalid_argument("tokenFile: " + file +
                                " holds no token; without the file a new one is made");
}

}  // namespace

std::string tokenFrom(const std::string& file) {
    if (::access(file.c_str(), F_OK) != 0) {
        const Draft draft(file);
        // Of several processes that begin at once one wins; a file that is there is a whole one.
        if (::link(draft.path().c_str(), file.c_str()) != 0 && errno != EEXIST) {
            fail("tokenFile: " + file + " cannot be made");
        }
    }
    const process::Descriptor known(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (known.get() < 0) fail("tokenFile: " + file + " cannot be read");
    return read(known, file);
}

}  // namespace kirofigures::detail
