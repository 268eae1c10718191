#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace recording_tool {

/// Bytes of a file.
struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;  ///< 0: the file has none of them
};

/// What a field "Range" asks for of a file of `fileSize` bytes; nothing for what is not exactly one
/// range, written as in "bytes=0-9", "bytes=5-" or "bytes=-5".
[[nodiscard]] std::optional<ByteRange> byteRange(std::string_view field,
                                                 std::uint64_t fileSize) noexcept;

}  // namespace recording_tool
