#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>
#include <vector>

namespace kirofigures {
class Numbers;
}

namespace kirofigures::detail {

/// Numbers of one of the types that travel.
using Slice =
    std::variant<std::span<const double>, std::span<const float>, std::span<const std::uint8_t>>;

[[nodiscard]] Slice sliceOf(const Numbers& numbers) noexcept;
[[nodiscard]] std::size_t sizeOf(const Slice& slice) noexcept;
/// From element `begin` on. REQUIRES: there are that many.
[[nodiscard]] Slice from(const Slice& slice, std::size_t begin) noexcept;

/// Whether 64-bit numbers lose nothing that could be seen when they travel as 32-bit ones: they are
/// 32-bit ones, or, unless only that will do (`exactly`), their rounding is small beside the
/// stretch that they cover. The rule stands at `Series`.
[[nodiscard]] bool travelAsFloats(std::span<const double> values, bool exactly) noexcept;

/// One property of the elements of a series, oldest first. What is dropped at the front is cleared
/// out when it is as much as what is left, so that an element is moved once at most and the rest
/// always is one piece, which can be sent as it stands.
class Column {
  public:
    /// Makes room, so that the next `append` of that many numbers of that type does not throw. It
    /// widens the numbers that are there when that type is wider.
    void reserve(const Slice& numbers);
    /// Numbers of a narrower type are widened.
    void append(const Slice& numbers);
    /// REQUIRES: there are that many.
    void drop(std::size_t count) noexcept;

    [[nodiscard]] std::size_t size() const noexcept;
    [[nodiscard]] Slice all() const noexcept;
    [[nodiscard]] double at(std::size_t index) const noexcept;

  private:
    std::variant<std::vector<double>, std::vector<float>, std::vector<std::uint8_t>> fValues =
        std::vector<std::uint8_t>();
    std::size_t fBegin = 0;
};

}  // namespace kirofigures::detail
