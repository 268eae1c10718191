#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "kiro/Export.hpp"

namespace kiro::web::binary {

/// The 64-bit identifier of a data block, seen as two halves. Values below 4 are never handed
/// out: 1 marks a command sent as a block, 2 an out-of-memory notice.
class KIROWEB_EXPORT DataID {
  public:
    /// The identifier 0.
    constexpr DataID() noexcept = default;
    constexpr explicit DataID(std::uint64_t value) noexcept
        : first(static_cast<std::uint32_t>(value)),
          second(static_cast<std::uint32_t>(value >> 32U)) {}
    constexpr DataID(std::uint32_t low, std::uint32_t high) noexcept : first(low), second(high) {}

    [[nodiscard]] constexpr std::uint64_t value() const noexcept {
        return (std::uint64_t{second} << 32U) | first;
    }

    /// Two decimal numbers with one blank between them, low half first: "4 0".
    [[nodiscard]] std::string convert_to_string() const;

    /// Reads the two numbers from `text` as a stream does in the classic locale and always writes
    /// `out`: a number that is not there is 0, one out of range the largest value.
    ///
    /// The answer is whether the text was used up, not whether both numbers were read, since a
    /// half that is missing is 0: "12 34" and "12" and "" answer true, "12 34 " and "x" false.
    /// Never throws.
    static bool construct_from_string(const std::string& text, DataID& out);

    friend constexpr bool operator==(const DataID&, const DataID&) noexcept = default;
    /// Orders by value.
    friend constexpr std::strong_ordering operator<=>(const DataID& a, const DataID& b) noexcept {
        return a.value() <=> b.value();
    }

    std::uint32_t first = 0;   ///< low half
    std::uint32_t second = 0;  ///< high half
};

}  // namespace kiro::web::binary
