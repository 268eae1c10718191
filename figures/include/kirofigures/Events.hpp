#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kirofigures {

class Axes;
class Series;

/// Somebody has pointed and clicked in axes.
struct Pick {
    double x = 0;
    double y = 0;
    /// The element near that place, if one is: its series, good during the callback, and its place
    /// among all that the series was given since it was last set.
    const Series* series = nullptr;
    std::uint64_t index = 0;
};

/// What somebody looks at.
struct View {
    struct Range {
        double low = 0;
        double high = 0;
    };
    Range x;
    Range y;
    std::optional<Range> y2;  ///< where there is such an axis
    /// Of the axes, in CSS pixels.
    double width = 0;
    double height = 0;
    /// Whether that is what the engine wants to be seen, again.
    bool home = false;
};

/// A key that the page has no use for, pressed where a figure has the focus.
struct Key {
    std::string key;             ///< as browsers name it: "a", "ArrowUp"
    const Axes* axes = nullptr;  ///< null: beside them; good during the callback
};

}  // namespace kirofigures
