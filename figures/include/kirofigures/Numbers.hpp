#pragma once

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <ranges>
#include <span>
#include <type_traits>

namespace kirofigures {

/// Numbers that lie one behind the other, of either precision: a vector, an array, a span.
template <typename Range>
concept NumberRange = std::ranges::contiguous_range<const Range> &&
    std::ranges::sized_range<const Range> &&
    (std::same_as<std::ranges::range_value_t<const Range>, float> ||
     std::same_as<std::ranges::range_value_t<const Range>, double>);

/// One number or several, as an argument: a view without a copy, which is read during the call
/// that takes it and not kept.
class Numbers {
  public:
    /// Not given.
    Numbers() noexcept = default;
    // One argument each, and all of them implicit: they are what callers write.
    Numbers(float value) noexcept : fFloat(value), fSize(1), fKind(Kind::kFloat) {}
    Numbers(double value) noexcept : fDouble(value), fSize(1), fKind(Kind::kDouble) {}
    template <std::integral Whole>
    requires(!std::same_as<Whole, bool>) Numbers(Whole value)
    noexcept : Numbers(static_cast<double>(value)) {}
    template <NumberRange Range>
    Numbers(const Range& range) noexcept
        : fData(std::ranges::data(range)),
          fSize(std::ranges::size(range)),
          fKind(std::same_as<std::ranges::range_value_t<const Range>, float> ? Kind::kFloats
                                                                             : Kind::kDoubles) {}
    Numbers(std::initializer_list<double> values) noexcept
        : fData(values.begin()), fSize(values.size()), fKind(Kind::kDoubles) {}

    [[nodiscard]] bool isGiven() const noexcept { return fKind != Kind::kNone; }
    [[nodiscard]] std::size_t size() const noexcept { return fSize; }
    /// Whether these are 32-bit numbers, which `floats` returns; otherwise `doubles` does.
    [[nodiscard]] bool areFloats() const noexcept {
        return fKind == Kind::kFloat || fKind == Kind::kFloats;
    }
    [[nodiscard]] std::span<const float> floats() const noexcept {
        return {fKind == Kind::kFloats ? static_cast<const float*>(fData) : &fFloat, fSize};
    }
    [[nodiscard]] std::span<const double> doubles() const noexcept {
        return {fKind == Kind::kDoubles ? static_cast<const double*>(fData) : &fDouble, fSize};
    }

  private:
    enum class Kind { kNone, kFloat, kDouble, kFloats, kDoubles };

    const void* fData = nullptr;
    double fDouble = 0;
    float fFloat = 0;
    std::size_t fSize = 0;
    Kind fKind = Kind::kNone;
};

/// Places at equal distances: the first at `start`, each further one `step` on.
struct Regular {
    double start = 0;
    double step = 1;
};

}  // namespace kirofigures
