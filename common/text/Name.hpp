#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "checked/Require.hpp"

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

/// The name as a part of a host's; empty if it cannot be one, as with "_" or a capital letter: to a
/// host's name that is as the small one, and no two sessions may have one host. REQUIRES: it is a
/// name.
[[nodiscard]] inline std::string hostLabel(std::string_view name) {
    KIROWEB_REQUIRE(isName(name));
    constexpr std::size_t kMostOfLabel = 63;
    const bool isLabel =
        name.size() <= kMostOfLabel && !name.starts_with('-') && !name.ends_with('-') &&
        std::ranges::none_of(name, [](char c) { return c == '_' || (c >= 'A' && c <= 'Z'); });
    return std::string(isLabel ? name : std::string_view());
}

}  // namespace text
