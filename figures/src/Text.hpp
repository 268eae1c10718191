#pragma once

#include <string_view>

namespace kirofigures::detail {

/// Whether `text` is UTF-8 as Unicode defines it: no surrogates, nothing longer than it has to be.
[[nodiscard]] bool isUTF8(std::string_view text) noexcept;

}  // namespace kirofigures::detail
