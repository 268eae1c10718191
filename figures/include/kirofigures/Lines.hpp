#pragma once

#include "kirofigures/Series.hpp"

namespace kirofigures {

enum class Dash { kSolid, kDashed, kDotted };
/// Where a step is between two elements: at the first, at the second, or halfway.
enum class Steps { kNone, kBefore, kAfter, kMiddle };

/// Elements in order, connected.
class Line : public PairsOf<Line> {
  public:
    explicit Line(detail::Node& node) noexcept : PairsOf(node) {}

    /// In CSS pixels; 1.5 unless set.
    Line& width(double pixels) {
        putNumber("width", pixels, Bound::kPositive);
        return *this;
    }
    Line& dash(Dash dash);
    /// Connects by a level and a jump in place of a slope.
    Line& steps(Steps steps);
};

/// A line and the ground between it and a base.
class Area : public PairsOf<Area> {
  public:
    explicit Area(detail::Node& node) noexcept : PairsOf(node) {}

    /// Where the ground ends, in units of y; 0 unless set.
    Area& base(double y) {
        putNumber("base", y);
        return *this;
    }
    /// Of the ground, from 0 to 1; 0.3 unless set.
    Area& opacity(double opacity) {
        putNumber("opacity", opacity, Bound::kFraction);
        return *this;
    }
    /// Of the line, in CSS pixels; 1.5 unless set.
    Area& width(double pixels) {
        putNumber("width", pixels, Bound::kNotNegative);
        return *this;
    }
};

/// A lower and an upper edge, and the ground between them.
class Band : public GrowingOf<Band> {
  public:
    explicit Band(detail::Node& node) noexcept : GrowingOf(node) {}

    /// REQUIRES: as many of each.
    Band& append(Numbers x, Numbers low, Numbers high) {
        appendColumns({{"x", x}, {"low", low}, {"high", high}});
        return *this;
    }
    /// At the next places of a regular x; without one x counts 0, 1, 2, ...
    Band& append(Numbers low, Numbers high) {
        appendColumns({{"low", low}, {"high", high}});
        return *this;
    }
    /// Instead of all data. REQUIRES: as many of each.
    Band& set(Numbers x, Numbers low, Numbers high) {
        setColumns({{"x", x}, {"low", low}, {"high", high}});
        return *this;
    }
    // Else "{1, 2}" could be a regular x as well.
    Band& set(std::initializer_list<double> x, Numbers low, Numbers high) {
        return set(Numbers(x), low, high);
    }
    Band& set(Regular x, Numbers low, Numbers high) {
        setColumns({{"low", low}, {"high", high}}, x);
        return *this;
    }
    /// Of the ground, from 0 to 1; 0.3 unless set.
    Band& opacity(double opacity) {
        putNumber("opacity", opacity, Bound::kFraction);
        return *this;
    }
    /// Of the edges, in CSS pixels; 1 unless set.
    Band& width(double pixels) {
        putNumber("width", pixels, Bound::kNotNegative);
        return *this;
    }
};

}  // namespace kirofigures
