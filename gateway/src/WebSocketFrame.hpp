#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "checked/Require.hpp"

namespace kirogateway {

enum class Opcode : unsigned char { kText = 1, kBinary = 2, kClose = 8, kPing = 9 };

inline constexpr std::size_t kMaxFrameHeader = 10;

/// Writes the header of a whole, unmasked frame, as a server sends it; answers its length.
/// REQUIRES: room for `kMaxFrameHeader` bytes.
inline std::size_t writeFrameHeader(char* to, Opcode opcode, std::size_t payload) noexcept {
    const auto byte = [](std::size_t value) { return static_cast<char>(value & 0xffU); };
    to[0] = static_cast<char>(0x80U | static_cast<unsigned char>(opcode));
    if (payload < 126) {
        to[1] = byte(payload);
        return 2;
    }
    const std::size_t width = payload <= 0xffff ? 2 : 8;
    to[1] = width == 2 ? 126 : 127;
    for (std::size_t i = 0; i < width; ++i) to[2 + i] = byte(payload >> (8 * (width - 1 - i)));
    return 2 + width;
}

[[nodiscard]] inline std::string makeFrame(Opcode opcode, std::string_view payload) {
    std::string frame(kMaxFrameHeader, '\0');
    frame.resize(writeFrameHeader(frame.data(), opcode, payload.size()));
    frame += payload;
    return frame;
}

/// Bytes of the longest reason.
inline constexpr std::size_t kMaxReason = 123;

/// REQUIRES: `reason` is UTF-8 of at most `kMaxReason` bytes.
[[nodiscard]] inline std::string makeCloseFrame(std::uint16_t code, std::string_view reason) {
    KIROWEB_REQUIRE(reason.size() <= kMaxReason);
    std::string payload{static_cast<char>(code >> 8U), static_cast<char>(code & 0xffU)};
    payload += reason;
    return makeFrame(Opcode::kClose, payload);
}

}  // namespace kirogateway
