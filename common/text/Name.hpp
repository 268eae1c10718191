#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace text {

inline constexpr std::size_t kMostOfName = 64;

/// Whether `name` can name a session or a gateway, in addresses and subjects alike: 1 to 64 of A-Z,
/// a-z, 0-9, "_" and "-".
[[nodiscard]] inline bool isName(std::string_view name) noexcept {
    return !name.empty() && name.size() <= kMostOfName && std::ranges::all_of(name, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-';
    });
}

}  // namespace text
