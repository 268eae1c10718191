#pragma once

#include <openssl/err.h>
#include <openssl/evp.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

namespace secret {

/// SHA-256 of `bytes`, in 64 small hexadecimal digits. Throws std::runtime_error when the system's
/// cryptography does not know it. Whoever includes this links OpenSSL.
[[nodiscard]] inline std::string sha256Hex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
        ERR_clear_error();  // a connection of this thread would take it for its own
        throw std::runtime_error("no SHA-256");
    }
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
        text += kDigits[digest.at(i) >> 4U];
        text += kDigits[digest.at(i) & 0xfU];
    }
    return text;
}

}  // namespace secret
