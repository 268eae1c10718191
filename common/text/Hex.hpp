#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace text {

/// Whether `text` is so many small hexadecimal digits.
[[nodiscard]] inline bool isHex(std::string_view text, std::size_t digits) noexcept {
    return text.size() == digits && std::ranges::all_of(text, [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

}  // namespace text
