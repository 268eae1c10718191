#include "Text.hpp"

#include <cstddef>

namespace kirofigures::detail {

namespace {

struct Sequence {
    std::size_t length = 0;    ///< 0: none begins like this
    unsigned char low = 0x80;  ///< of the second byte
    unsigned char high = 0xbf;
};

Sequence sequenceOf(unsigned char first) noexcept {
    if (first < 0x80) return {1};
    if (first < 0xc2) return {};
    if (first < 0xe0) return {2};
    if (first == 0xe0) return {3, 0xa0};
    if (first == 0xed) return {3, 0x80, 0x9f};
    if (first < 0xf0) return {3};
    if (first == 0xf0) return {4, 0x90};
    if (first < 0xf4) return {4};
    if (first == 0xf4) return {4, 0x80, 0x8f};
    return {};
}

}  // namespace

bool isUTF8(std::string_view text) noexcept {
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [text, i](std::size_t k) {
            return static_cast<unsigned char>(text[i + k]);
        };
        const auto [length, low, high] = sequenceOf(byte(0));
        if (length == 0 || text.size() - i < length) return false;
        if (length > 1 && (byte(1) < low || byte(1) > high)) return false;
        for (std::size_t k = 2; k < length; ++k) {
            if ((byte(k) & 0xc0U) != 0x80) return false;
        }
        i += length;
    }
    return true;
}

}  // namespace kirofigures::detail
