#include "TokenFile.hpp"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace kirofigures::detail {

namespace {

constexpr std::size_t kBytes = 32;
constexpr std::size_t kDigits = 2 * kBytes;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Closes what it holds.
class Descriptor {
  public:
    explicit Descriptor(int number) noexcept : fNumber(number) {}
    ~Descriptor() {
        if (fNumber >= 0) ::close(fNumber);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    [[nodiscard]] int get() const noexcept { return fNumber; }

  private:
    const int fNumber;
};

std::string newToken() {
    std::array<unsigned char, kBytes> random{};
    if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
        fail("getrandom");
    }
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string token;
    for (const unsigned char byte : random) token += {kHex[byte >> 4U], kHex[byte & 0xfU]};
    return token;
}

std::string written(const Descriptor& descriptor, const std::string& file) {
    std::string token = newToken();
    const std::string line = token + '\n';
    if (::write(descriptor.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        ::unlink(file.c_str());
        fail("tokenFile: " + file + " cannot be written");
    }
    return token;
}

std::string read(const Descriptor& descriptor, const std::string& file) {
    struct stat known {};
    if (::fstat(descriptor.get(), &known) != 0) fail("tokenFile: " + file + " cannot be read");
    if ((known.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::invalid_argument("tokenFile: others may read " + file + "; chmod 600 ends that");
    }
    std::string text(kDigits + 2, '\0');
    const auto size = ::read(descriptor.get(), text.data(), text.size());
    if (size < 0) fail("tokenFile: " + file + " cannot be read");
    text.resize(static_cast<std::size_t>(size));
    if (text.ends_with('\n')) text.pop_back();
    const bool isToken = text.size() == kDigits && std::ranges::all_of(text, [](char c) {
                             return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
                         });
    if (isToken) return text;
    throw std::invalid_argument("tokenFile: " + file +
                                " holds no token; without the file a new one is made");
}

}  // namespace

std::string tokenFrom(const std::string& file) {
    // Made by one process only, however many begin at once.
    const Descriptor fresh(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fresh.get() >= 0) return written(fresh, file);
    if (errno != EEXIST) fail("tokenFile: " + file + " cannot be made");
    const Descriptor known(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (known.get() < 0) fail("tokenFile: " + file + " cannot be read");
    return read(known, file);
}

}  // namespace kirofigures::detail
