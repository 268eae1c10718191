#include "kirofigures/Color.hpp"

#include <algorithm>
#include <cctype>

namespace kirofigures {

Color Color::rgb(std::uint8_t red, std::uint8_t green, std::uint8_t blue, std::uint8_t alpha) {
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string text = "#";
    for (const std::uint8_t part : {red, green, blue, alpha}) {
        text += {kHex[part >> 4U], kHex[part & 0xfU]};
    }
    return text;
}

bool Color::isValid() const noexcept {
    if (fText.size() != 7 && fText.size() != 9) return false;
    return fText.front() == '#' && std::all_of(fText.begin() + 1, fText.end(), [](char c) {
               return std::isxdigit(static_cast<unsigned char>(c)) != 0;
           });
}

}  // namespace kirofigures
