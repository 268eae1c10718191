#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
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

/// The name as a part of a host's, where capital letters are as small ones; empty if it cannot be
/// one, as with "_". REQUIRES: it is a name.
[[nodiscard]] inline std::string hostLabel(std::string_view name) {
    constexpr std::size_t kMostOfLabel = 63;
    std::string label(name);
    for (char& c : label) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    const bool isLabel = label.size() <= kMostOfLabel && label.find('_') == std::string::npos &&
                         !label.starts_with('-') && !label.ends_with('-');
    return isLabel ? label : std::string();
}

}  // namespace text
