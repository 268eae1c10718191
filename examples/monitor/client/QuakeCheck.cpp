#include "client/QuakeCheck.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <vector>

#include "Contract.hpp"
#include "client/DataUpdate.hpp"
#include "client/Findings.hpp"
#include "client/ReferenceData.hpp"

namespace monitor::client {

using namespace monitor::contract;

namespace {

/// NaN, which ends a strip, equals itself here.
bool same(double a, float b) { return a == double{b} || (std::isnan(a) && std::isnan(b)); }

}  // namespace

QuakeCheck::QuakeCheck(const ReferenceData& data, Findings& findings)
    : fData(data), fFindings(findings) {}

void QuakeCheck::clear() {
    fCoastVertices = 0;
    fShown = 0;
    fCaption.clear();
    fPicked.clear();
}

void QuakeCheck::coast(const DataUpdate& update) {
    fCoastVertices = update.count;
    if (update.first != 0 || !std::ranges::equal(update.column("x"), fData.coastLongitudes, same) ||
        !std::ranges::equal(update.column("y"), fData.coastLatitudes, same)) {
        fFindings.wrong("the coastline");
    }
}

void QuakeCheck::points(const DataUpdate& update) {
    if (update.first != 0 && update.first != fShown) {
        fFindings.outOfOrder("earthquakes from " + std::to_string(update.first) + " behind " +
                             std::to_string(fShown));
    }
    fShown = update.first + update.count;
    if (fShown > fData.quakes.size()) {
        fFindings.wrong("earthquakes up to " + std::to_string(fShown));
        return;
    }
    for (std::size_t i = 0; i < update.count; ++i) {
        const auto& quake = fData.quakes[update.first + i];
        if (same(update.column("x")[i], quake.longitude) &&
            same(update.column("y")[i], quake.latitude) &&
            same(update.column("size")[i], diameterOf(quake.magnitude)) &&
            same(update.column("value")[i], quake.depth)) {
            continue;
        }
        fFindings.wrong("earthquake " + std::to_string(update.first + i));
        return;
    }
}

void QuakeCheck::endFrame(std::uint64_t frame) const {
    const std::string inFrame = " in frame " + std::to_string(frame);
    if (fCoastVertices == 0) fFindings.missing("the coastline" + inFrame);
    const std::size_t shown = shownIn(frame);
    if (fShown < shown) fFindings.missing("earthquakes up to " + std::to_string(shown) + inFrame);
    if (fShown > shown) fFindings.wrong("earthquakes that come later" + inFrame);
    if (fCaption != fData.quakes[shown - 1].caption) {
        fFindings.wrong("the caption \"" + fCaption + '"' + inFrame);
    }
    if (fPicked != fExpectedPick) {
        fFindings.wrong("the picked earthquake \"" + fPicked + '"' + inFrame);
    }
}

QuakeCheck::Pick QuakeCheck::pick(std::uint64_t frame) {
    constexpr std::uint64_t kStride = 7;  // wanders over the map
    const std::size_t shown = shownIn(frame);
    const std::uint64_t index = frame * kStride % shown;
    const auto& quake = fData.quakes[index];
    Pick pick{quake.longitude, quake.latitude};
    if (frame % 2 == 0) pick.index = index;
    fExpectedPick = pick.index ? quake.caption : nearest(pick, shown);
    return pick;
}

std::size_t QuakeCheck::shownIn(std::uint64_t frame) const {
    const auto frames = static_cast<std::int64_t>(frame % kFramesPerWeek) + 1;
    const std::int64_t now = fData.quakes.front().timeMs + frames * kMillisecondsPerFrame;
    const auto later =
        std::ranges::lower_bound(fData.quakes, now, {}, &ReferenceData::Quake::timeMs);
    return static_cast<std::size_t>(later - fData.quakes.begin());
}

const std::string& QuakeCheck::nearest(const Pick& pick, std::size_t shown) const {
    const auto distance = [&pick](const ReferenceData::Quake& quake) {
        const double dx = double{quake.longitude} - pick.longitude;
        const double dy = double{quake.latitude} - pick.latitude;
        return dx * dx + dy * dy;
    };
    // From the latest back, so that the latest of several equally near is found.
    const auto begin =
        std::make_reverse_iterator(fData.quakes.begin() + static_cast<std::ptrdiff_t>(shown));
    return std::ranges::min_element(begin, fData.quakes.rend(), {}, distance)->caption;
}

}  // namespace monitor::client
