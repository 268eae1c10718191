#pragma once

#include <string_view>

#include "kirofigures/Lines.hpp"
#include "kirofigures/Series.hpp"

namespace kirofigures {

/// Stretches of line, such as a coast; a NaN ends each.
class Outline : public PairsOf<Outline> {
  public:
    explicit Outline(detail::Node& node) noexcept : PairsOf(node) {}

    /// In CSS pixels; 1 unless set.
    Outline& width(double pixels) {
        putNumber("width", pixels, Bound::kPositive);
        return *this;
    }
};

/// Filled polygons, which are closed; a NaN ends each. What lies in two of them is empty again.
class Polygon : public PairsOf<Polygon> {
  public:
    explicit Polygon(detail::Node& node) noexcept : PairsOf(node) {}

    /// From 0 to 1; 0.3 unless set.
    Polygon& opacity(double opacity) {
        putNumber("opacity", opacity, Bound::kFraction);
        return *this;
    }
    /// Of the edge, in CSS pixels; 1 unless set.
    Polygon& width(double pixels) {
        putNumber("width", pixels, Bound::kNotNegative);
        return *this;
    }
};

/// A straight line across the axes, or a span of them.
class Reference : public SeriesOf<Reference> {
  public:
    explicit Reference(detail::Node& node) noexcept : SeriesOf(node) {}

    /// A line, instead of what there was.
    Reference& at(double place) {
        putNumber("at", place);
        putNothing("span");
        return *this;
    }
    /// A span, instead of what there was.
    Reference& span(double low, double high) {
        putLimits("span", low, high);
        putNothing("at");
        return *this;
    }
    /// Of a span, from 0 to 1; 0.15 unless set.
    Reference& opacity(double opacity) {
        putNumber("opacity", opacity, Bound::kFraction);
        return *this;
    }
    /// Of a line, in CSS pixels; 1.5 unless set.
    Reference& width(double pixels) {
        putNumber("width", pixels, Bound::kPositive);
        return *this;
    }
    /// Of a line; dashed unless set.
    Reference& dash(Dash dash);

  private:
    friend class Axes;
};

enum class Anchor { kLeft, kCenter, kRight };

/// A text at a place.
class Text : public SeriesOf<Text> {
  public:
    explicit Text(detail::Node& node) noexcept : SeriesOf(node) {}

    Text& text(std::string_view text) {
        putText("text", text);
        return *this;
    }
    /// In units of the axes.
    Text& at(double x, double y) {
        putPlace("at", x, y);
        putFlag("inAxes", false);
        return *this;
    }
    /// From (0, 0), the axes' lower left, to (1, 1).
    Text& atFraction(double x, double y) {
        putPlace("at", x, y);
        putFlag("inAxes", true);
        return *this;
    }
    /// Which part of the text is at its place; the left one unless set.
    Text& anchor(Anchor anchor);
    /// In CSS pixels; 12 unless set.
    Text& fontSize(double pixels) {
        putNumber("fontSize", pixels, Bound::kPositive);
        return *this;
    }
};

}  // namespace kirofigures
