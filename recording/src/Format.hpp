#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kirorecording {

inline constexpr std::string_view kMagic("\x89MCAP0\r\n", 8);
inline constexpr std::string_view kProfile = "kiroweb";
inline constexpr std::string_view kZstd = "zstd";

namespace op {
inline constexpr std::uint8_t kHeader = 0x01;
inline constexpr std::uint8_t kFooter = 0x02;
inline constexpr std::uint8_t kSchema = 0x03;
inline constexpr std::uint8_t kChannel = 0x04;
inline constexpr std::uint8_t kMessage = 0x05;
inline constexpr std::uint8_t kChunk = 0x06;
inline constexpr std::uint8_t kMessageIndex = 0x07;
inline constexpr std::uint8_t kChunkIndex = 0x08;
inline constexpr std::uint8_t kStatistics = 0x0b;
inline constexpr std::uint8_t kSummaryOffset = 0x0e;
inline constexpr std::uint8_t kDataEnd = 0x0f;
}  // namespace op

/// A record's opcode and the length of its content.
inline constexpr std::size_t kRecordHead = 1 + 8;
/// The footer with its head, which ends before the magic at the file's end.
inline constexpr std::size_t kFooterSize = kRecordHead + 8 + 8 + 4;

/// CRC-32, of `bytes` behind those that gave `crc`.
[[nodiscard]] std::uint32_t crcOf(std::string_view bytes, std::uint32_t crc = 0);

/// Compresses as one zstd frame. Throws std::bad_alloc.
[[nodiscard]] std::string compressed(std::string_view bytes);
/// Makes `size` bytes of `bytes`; false when that is not what they are.
[[nodiscard]] bool decompress(std::string_view bytes, std::size_t size, std::string& into);

}  // namespace kirorecording
