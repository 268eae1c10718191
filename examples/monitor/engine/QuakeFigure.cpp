#include "engine/QuakeFigure.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <vector>

#include "Contract.hpp"
#include "engine/DataSet.hpp"
#include "ui_objects/UTF16String.hpp"

namespace monitor::engine {

using namespace monitor::contract;

namespace {

constexpr std::uint64_t kQuakeColumns = 4;

std::string withOneDecimal(float value) {
    std::array<char, 32> text{};
    const auto result = std::to_chars(text.data(), text.data() + text.size(), double{value},
                                      std::chars_format::fixed, 1);
    return {text.data(), result.ptr};
}

}  // namespace

QuakeFigure::QuakeFigure(const DataSet& data) : fData(data) {}

void QuakeFigure::pick(Pick pick) { fPick = pick; }

void QuakeFigure::doAdvance(std::uint64_t frame) {
    const auto& quakes = fData.earthquakes;
    const std::uint64_t frameOfWeek = frame % kFramesPerWeek;
    fWeekBegins = frameOfWeek == 0;
    const std::int64_t now =
        quakes.front().timeMs + static_cast<std::int64_t>(frameOfWeek + 1) * kMillisecondsPerFrame;
    fShownBefore = fWeekBegins ? 0 : fShown;
    fShown = fShownBefore;
    while (fShown < quakes.size() && quakes[fShown].timeMs < now) ++fShown;
}

void QuakeFigure::sendWhole(Outlet& out) const {
    sendObjects(out);
    sendCoast(out);
    setData(out, fPoints, sendQuakes(out, 0));
    sendTexts(out);
}

void QuakeFigure::sendNew(Outlet& out) const {
    if (fWeekBegins) {
        setData(out, fPoints, sendQuakes(out, 0));
    } else if (fShown > fShownBefore) {
        appendData(out, fPoints, sendQuakes(out, fShownBefore));
    }
    sendTexts(out);
}

void QuakeFigure::sendObjects(Outlet& out) const {
    createFigure(out, fFigure, "quakes.figure");
    setTitle(out, fFigure,
             ui_objects::UTF16String(u"Earthquakes, 31 January \u2013 7 February 2018"));
    createObject(out, fAxes, "axes", "quakes.axes", fFigure);
    setLimits(out, fAxes, {-180, 180}, {-90, 90});
    setLabels(out, fAxes, "longitude in degrees", "latitude in degrees");
    setTicks(out, fAxes, {-120, -60, 0, 60, 120}, {"120 W", "60 W", "0", "60 E", "120 E"});
    createObject(out, fCoast, "path", "quakes.coast", fAxes);
    setStyle(out, fCoast, {0.5F, 0.5F, 0.5F}, 0.5);
    createObject(out, fPoints, "points", "quakes.points", fAxes);
    setStyle(out, fPoints, {0.8F, 0.1F, 0.1F}, 1);
    createObject(out, fCaption, "text", "quakes.caption", fAxes);
    setPosition(out, fCaption, {0.02, 0.04});
    createObject(out, fPicked, "text", "quakes.picked", fAxes);
    setFont(out, fPicked, {.weight = FONT_WEIGHT_BOLD, .angle = FONT_ANGLE_ITALIC});
    setPosition(out, fPicked, {0.02, 0.1});
    setChildren(out, fAxes, {fCoast, fPoints, fCaption, fPicked});
}

void QuakeFigure::sendCoast(Outlet& out) const {
    // By far the largest block, and nothing else has to wait for it.
    setData(out, fCoast,
            {.id = out.blockAsync(fData.coastline),
             .count = fData.coastline.size() / 2,
             .columns = 2,
             .async = true});
}

void QuakeFigure::sendTexts(Outlet& out) const {
    setText(out, fCaption, nameOf(fShown - 1));
    setText(out, fPicked, nameOfPicked());
    setVisible(out, fPicked, fPick.has_value());
}

DataRef QuakeFigure::sendQuakes(Outlet& out, std::size_t first) const {
    std::vector<float> numbers;
    numbers.reserve((fShown - first) * kQuakeColumns);
    for (std::size_t i = first; i < fShown; ++i) {
        const Earthquake& quake = fData.earthquakes[i];
        numbers.insert(numbers.end(),
                       {quake.longitude, quake.latitude, quake.depth, quake.magnitude});
    }
    return {.id = out.block(numbers),
            .first = first,
            .count = fShown - first,
            .columns = kQuakeColumns};
}

std::string QuakeFigure::nameOf(std::size_t index) const {
    const Earthquake& quake = fData.earthquakes[index];
    return "M " + withOneDecimal(quake.magnitude) + ", " + quake.place;
}

std::string QuakeFigure::nameOfPicked() const {
    if (!fPick) return {};
    std::size_t nearest = 0;
    double least = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < fShown; ++i) {
        const double dx = double{fData.earthquakes[i].longitude} - double{fPick->longitude};
        const double dy = double{fData.earthquakes[i].latitude} - double{fPick->latitude};
        const double distance = dx * dx + dy * dy;
        if (distance <= least) {
            least = distance;
            nearest = i;
        }
    }
    return nameOf(nearest);
}

}  // namespace monitor::engine
