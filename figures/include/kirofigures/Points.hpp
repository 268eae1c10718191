#pragma once

#include "kirofigures/Series.hpp"

namespace kirofigures {

/// Elements as points.
class Scatter : public GrowingOf<Scatter> {
  public:
    /// What single points may have: a diameter in CSS pixels, and a value that becomes a colour.
    struct Each {
        Numbers size{};
        Numbers value{};
    };

    explicit Scatter(detail::Node& node) noexcept : GrowingOf(node) {}

    /// REQUIRES: as many of each that is given, and what the points before have is given.
    Scatter& append(Numbers x, Numbers y) { return append(x, y, Each{}); }
    Scatter& append(Numbers x, Numbers y, const Each& each);
    /// Instead of all data. REQUIRES: as many of each that is given.
    Scatter& set(Numbers x, Numbers y) { return set(x, y, Each{}); }
    Scatter& set(Numbers x, Numbers y, const Each& each);

    /// Of points that have none of their own, in CSS pixels; 6 unless set.
    Scatter& size(double diameter) {
        putNumber("size", diameter, Bound::kPositive);
        return *this;
    }
    Scatter& colorMap(ColorMap map) {
        putColorMap(map);
        return *this;
    }
    /// The values that have the first and the last colour.
    Scatter& limits(double low, double high) {
        putLimits("limits", low, high);
        return *this;
    }
    Scatter& colorBar(bool shown = true) {
        putFlag("colorBar", shown);
        return *this;
    }
};

/// A bar for each element.
class Bars : public PairsOf<Bars> {
  public:
    explicit Bars(detail::Node& node) noexcept : PairsOf(node) {}

    /// Where bars begin, in units of y; 0 unless set.
    Bars& base(double y) {
        putNumber("base", y);
        return *this;
    }
    /// In units of x; unless set, 0.8 of the least distance of two bars.
    Bars& width(double width) {
        putNumber("barWidth", width, Bound::kPositive);
        return *this;
    }
};

/// How far elements may lie from where they are drawn.
class ErrorBars : public GrowingOf<ErrorBars> {
  public:
    explicit ErrorBars(detail::Node& node) noexcept : GrowingOf(node) {}

    /// `minus` and `plus` are lengths, in units of y, not below 0. REQUIRES: as many of each.
    ErrorBars& append(Numbers x, Numbers y, Numbers minus, Numbers plus) {
        appendColumns({{"x", x}, {"y", y}, {"minus", minus}, {"plus", plus}});
        return *this;
    }
    /// As above, instead of all data.
    ErrorBars& set(Numbers x, Numbers y, Numbers minus, Numbers plus) {
        setColumns({{"x", x}, {"y", y}, {"minus", minus}, {"plus", plus}});
        return *this;
    }
    /// The length of the end marks in CSS pixels; 6 unless set.
    ErrorBars& cap(double pixels) {
        putNumber("cap", pixels, Bound::kNotNegative);
        return *this;
    }
    /// In CSS pixels; 1.5 unless set.
    ErrorBars& width(double pixels) {
        putNumber("width", pixels, Bound::kPositive);
        return *this;
    }
};

}  // namespace kirofigures
