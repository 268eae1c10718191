#pragma once

#include <sys/random.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>

namespace secret {

/// `bytes` random bytes of the operating system's, in hexadecimal. Throws std::system_error.
inline std::string randomHex(std::size_t bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string random(bytes, '\0');
    for (std::size_t done = 0; done < bytes;) {
        const auto got = ::getrandom(random.data() + done, bytes - done, 0);
        if (got < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        if (got > 0) done += static_cast<std::size_t>(got);
    }
    std::string text;
    for (const char byte : random) {
        text += kDigits[static_cast<unsigned char>(byte) >> 4U];
        text += kDigits[static_cast<unsigned char>(byte) & 0xfU];
    }
    return text;
}

}  // namespace secret
