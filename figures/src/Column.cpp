#include "Column.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "checked/Require.hpp"
#include "kirofigures/Numbers.hpp"

namespace kirofigures::detail {

namespace {

/// Rounding to 24 bits moves a value by at most 2^-25 of its magnitude. At 8 times the stretch
/// that is 2^-22 of the stretch: a thousandth of a pixel on an axis of 4000 pixels.
constexpr double kLargestOffset = 8;
/// Below it 32-bit numbers lose digits.
constexpr double kLeastMagnitude = 0x1p-100;

bool isFloat(double value) noexcept {
    if (!std::isfinite(value)) return true;
    if (std::abs(value) > std::numeric_limits<float>::max()) return false;
    return static_cast<double>(static_cast<float>(value)) == value;
}

template <typename To, typename From>
void appendTo(std::vector<To>& values, std::span<const From> numbers) {
    values.insert(values.end(), numbers.begin(), numbers.end());
}

/// By doubling, as a vector grows by itself.
template <typename To>
void makeRoom(std::vector<To>& values, std::size_t count) {
    const std::size_t needed = values.size() + count;
    if (needed > values.capacity()) values.reserve(std::max(needed, 2 * values.capacity()));
}

}  // namespace

Slice sliceOf(const Numbers& numbers) noexcept {
    if (numbers.areFloats()) return numbers.floats();
    return numbers.doubles();
}

std::size_t sizeOf(const Slice& slice) noexcept {
    return std::visit([](const auto& numbers) { return numbers.size(); }, slice);
}

Slice from(const Slice& slice, std::size_t begin) noexcept {
    return std::visit([begin](const auto& numbers) -> Slice { return numbers.subspan(begin); },
                      slice);
}

bool travelAsFloats(std::span<const double> values, bool exactly) noexcept {
    bool areFloats = true;
    double low = std::numeric_limits<double>::infinity();
    double high = -low;
    for (const double value : values) {
        areFloats = areFloats && isFloat(value);
        if (!areFloats && exactly) return false;
        if (!std::isfinite(value)) continue;
        low = value < low ? value : low;
        high = value > high ? value : high;
    }
    if (areFloats) return true;
    const double largest = std::max(std::abs(low), std::abs(high));
    return largest <= std::numeric_limits<float>::max() && largest >= kLeastMagnitude &&
           largest <= kLargestOffset * (high - low);
}

void Column::reserve(const Slice& numbers) {
    // The variant's types stand widest first.
    if (numbers.index() < fValues.index()) {
        std::visit(
            [this](const auto& given) {
                using Wide = std::remove_cv_t<typename std::decay_t<decltype(given)>::element_type>;
                std::vector<Wide> wide;
                wide.reserve(size() + given.size());
                std::visit([&wide](const auto& old) { appendTo(wide, old); }, all());
                fValues = std::move(wide);
                fBegin = 0;
            },
            numbers);
    }
    std::visit([count = sizeOf(numbers)](auto& values) { makeRoom(values, count); }, fValues);
}

void Column::append(const Slice& numbers) {
    reserve(numbers);
    std::visit(
        [](auto& values, const auto& given) {
            using To = typename std::decay_t<decltype(values)>::value_type;
            using From = std::remove_cv_t<typename std::decay_t<decltype(given)>::element_type>;
            // `reserve` has seen to it that nothing is narrowed.
            if constexpr (sizeof(From) <= sizeof(To)) appendTo(values, given);
        },
        fValues, numbers);
}

void Column::drop(std::size_t count) noexcept {
    KIROWEB_REQUIRE(count <= size());
    fBegin += count;
    if (fBegin < size()) return;
    std::visit(
        [this](auto& values) {
            values.erase(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(fBegin));
        },
        fValues);
    fBegin = 0;
}

std::size_t Column::size() const noexcept {
    return std::visit([](const auto& values) { return values.size(); }, fValues) - fBegin;
}

Slice Column::all() const noexcept {
    return std::visit(
        [this](const auto& values) -> Slice { return std::span(values).subspan(fBegin); }, fValues);
}

double Column::at(std::size_t index) const noexcept {
    return std::visit([index](const auto& values) { return static_cast<double>(values[index]); },
                      all());
}

}  // namespace kirofigures::detail
