#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace monitor::client {

/// The bytes that `text` stands for: the standard alphabet, padded with "=", no line breaks.
/// Nothing when it is anything else.
[[nodiscard]] std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace monitor::client
