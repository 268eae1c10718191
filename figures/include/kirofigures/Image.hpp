#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kirofigures/Series.hpp"

namespace kirofigures {

/// A matrix of values as colours. NaN has the colour of missing values.
class Image : public SeriesOf<Image> {
  public:
    explicit Image(detail::Node& node) noexcept : SeriesOf(node) {}

    /// Row by row, the lowest one first. REQUIRES: rows * columns values, and at least one.
    Image& set(std::size_t rows, std::size_t columns, Numbers values);
    /// As above, of values from 0 to 255.
    Image& set(std::size_t rows, std::size_t columns, std::span<const std::uint8_t> values);

    /// Where the edges lie; unless set, from 0 to the number of columns and of rows.
    Image& x(double low, double high) {
        putLimits("x", low, high);
        return *this;
    }
    Image& y(double low, double high) {
        putLimits("y", low, high);
        return *this;
    }
    /// The values that have the first and the last colour; unless set, the least and the largest.
    Image& limits(double low, double high) {
        putLimits("limits", low, high);
        return *this;
    }
    Image& colorMap(ColorMap map) {
        putColorMap(map);
        return *this;
    }
    /// Shown unless set.
    Image& colorBar(bool shown) {
        putFlag("colorBar", shown);
        return *this;
    }
};

}  // namespace kirofigures
