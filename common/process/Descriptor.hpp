#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

namespace process {

/// Calls what answers as a system call does, again as long as a signal interrupts it.
template <typename Call>
ssize_t againIfInterrupted(const Call& call) {
    for (;;) {
        const ssize_t result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

/// An open file, which it closes. Negative: none.
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

/// Reads to the end, but no more than `most` bytes, into `bytes`. Returns whether it could;
/// otherwise `errno` says why.
[[nodiscard]] inline bool readUpTo(int descriptor, std::size_t most, std::string& bytes) {
    bytes.assign(most, '\0');
    std::size_t size = 0;
    while (size < most) {
        const auto got = againIfInterrupted(
            [&] { return ::read(descriptor, bytes.data() + size, most - size); });
        if (got < 0) return false;
        if (got == 0) break;
        size += static_cast<std::size_t>(got);
    }
    bytes.resize(size);
    return true;
}

/// Writes all of `bytes`, which may take several calls. Returns whether it could; otherwise `errno`
/// says why. A disk that becomes full takes what has room, and refuses the rest.
[[nodiscard]] inline bool writeAll(int descriptor, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const auto written =
            againIfInterrupted([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
        if (written < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace process
