#include "engine/QuakeFigure.hpp"

#include <array>
#include <charconv>
#include <limits>
#include <vector>

#include "Contract.hpp"
#include "engine/DataSet.hpp"
#include "kirofigures/Window.hpp"

namespace monitor::engine {

using namespace monitor::contract;

namespace {

std::string withOneDecimal(float value) {
    std::array<char, 32> text{};
    const auto result = std::to_chars(text.data(), text.data() + text.size(), double{value},
                                      std::chars_format::fixed, 1);
    return {text.data(), result.ptr};
}

/// What does not change comes first: a page keeps the picture of it.
kirofigures::Axes& withCoast(kirofigures::Axes& axes, const DataSet& data) {
    axes.outline().set(data.coastLongitudes, data.coastLatitudes).color("#808080").width(0.5);
    return axes;
}

}  // namespace

QuakeFigure::QuakeFigure(kirofigures::Window& window, const DataSet& data)
    : fData(data),
      fAxes(
          withCoast(window.figure("Earthquakes, 31 January \u2013 7 February 2018").axes(), data)),
      fQuakes(fAxes.scatter("depth in km")),
      fCaption(fAxes.text(0, 0, "")),
      fPicked(fAxes.text(0, 0, "")) {
    setLooks();
    fAxes.onPick([this](const kirofigures::Pick& pick) { fPicked.text(nameOf(picked(pick))); });
}

void QuakeFigure::setLooks() {
    constexpr double kDeepKm = 600;
    fAxes.x()
        .label("longitude", "\u00b0")
        .limits(-180, 180)
        .ticks({{-120, "120 W"}, {-60, "60 W"}, {0, "0"}, {60, "60 E"}, {120, "120 E"}});
    fAxes.y().label("latitude", "\u00b0").limits(-90, 90);
    fQuakes.limits(0, kDeepKm).colorBar();
    fCaption.atFraction(0.02, 0.04);
    fPicked.atFraction(0.02, 0.1);
}

void QuakeFigure::advance() {
    const auto& quakes = fData.earthquakes;
    const std::uint64_t frameOfWeek = fFrame++ % kFramesPerWeek;
    if (frameOfWeek == 0) {
        fQuakes.clear();
        fShown = 0;
    }
    const std::int64_t now =
        quakes.front().timeMs + static_cast<std::int64_t>(frameOfWeek + 1) * kMillisecondsPerFrame;
    const std::size_t first = fShown;
    while (fShown < quakes.size() && quakes[fShown].timeMs < now) ++fShown;
    append(first);
    fCaption.text(nameOf(fShown - 1));
}

void QuakeFigure::append(std::size_t first) {
    std::vector<float> x;
    std::vector<float> y;
    std::vector<float> diameter;
    std::vector<float> depth;
    for (std::size_t i = first; i < fShown; ++i) {
        const Earthquake& quake = fData.earthquakes[i];
        x.push_back(quake.longitude);
        y.push_back(quake.latitude);
        diameter.push_back(diameterOf(quake.magnitude));
        depth.push_back(quake.depth);
    }
    fQuakes.append(x, y, {.size = diameter, .value = depth});
}

std::size_t QuakeFigure::picked(const kirofigures::Pick& pick) const {
    // What a page points at may be of the week before.
    if (pick.series == &fQuakes && pick.index < fShown) return pick.index;
    std::size_t nearest = 0;
    double least = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < fShown; ++i) {
        const double dx = double{fData.earthquakes[i].longitude} - pick.x;
        const double dy = double{fData.earthquakes[i].latitude} - pick.y;
        const double distance = dx * dx + dy * dy;
        if (distance > least) continue;
        least = distance;
        nearest = i;
    }
    return nearest;
}

std::string QuakeFigure::nameOf(std::size_t index) const {
    const Earthquake& quake = fData.earthquakes[index];
    return "M " + withOneDecimal(quake.magnitude) + ", " + quake.place;
}

}  // namespace monitor::engine
