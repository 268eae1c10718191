#include "client/Base64.hpp"

#include <cstdint>

namespace monitor::client {

std::optional<std::string> decodeBase64(std::string_view text) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && text.ends_with('=')) {
        text.remove_suffix(1);
        ++padding;
    }
    std::string bytes;
    std::uint32_t bits = 0;
    unsigned held = 0;
    for (const char c : text) {
        const std::size_t digit = kAlphabet.find(c);
        if (digit == std::string_view::npos) return std::nullopt;
        bits = bits << 6U | static_cast<std::uint32_t>(digit);
        held += 6;
        if (held < 8) continue;
        held -= 8;
        bytes += static_cast<char>(static_cast<unsigned char>(bits >> held));
    }
    const bool leftOver = (bits & ((1U << held) - 1U)) != 0;
    if (leftOver || held != 2 * padding) return std::nullopt;
    return bytes;
}

}  // namespace monitor::client
