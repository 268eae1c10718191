#pragma once

#include <string>
#include <string_view>

namespace kirogateway {

/// The bytes that separate records, and channel from text, in a batch.
inline constexpr char kRecordSeparator = '\x1e';
inline constexpr char kUnitSeparator = '\x1f';

/// Whether `text` can stand in a batch as it is: valid UTF-8 without a separator.
[[nodiscard]] bool isPlain(std::string_view text) noexcept;

/// Standard Base64 in one line.
[[nodiscard]] std::string encodeBase64(std::string_view bytes);

}  // namespace kirogateway
