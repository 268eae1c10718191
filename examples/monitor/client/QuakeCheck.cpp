#include "client/QuakeCheck.hpp"

#include <algorithm>
#include <bit>
#include <iterator>

#include "Contract.hpp"
#include "client/DataUpdate.hpp"
#include "client/Findings.hpp"
#include "client/ReferenceData.hpp"

namespace monitor::client {

using namespace monitor::contract;

namespace {

constexpr std::size_t kPointColumns = 4;

/// Equal as bits, so that the NaN that ends a strip equals itself.
bool same(float a, float b) {
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}

}  // namespace

QuakeCheck::QuakeCheck(const ReferenceData& data, Findings& findings)
    : fData(data), fFindings(findings) {}

void QuakeCheck::clear() {
    fCoastVertices = 0;
    fShown = 0;
    fCaption.clear();
    fPicked.clear();
    fPickedVisible = false;
}

void QuakeCheck::coast(const DataUpdate& update) {
    fCoastVertices = update.count;
    if (update.append || update.first != 0 || update.columns != 2 ||
        !std::ranges::equal(update.numbers, fData.coastline, same)) {
        fFindings.wrong("the coastline");
    }
}

void QuakeCheck::points(const DataUpdate& update) {
    if (update.first != (update.append ? fShown : 0)) {
        fFindings.outOfOrder("earthquakes from " + std::to_string(update.first) + " behind " +
                             std::to_string(fShown));
    }
    fShown = update.first + update.count;
    if (update.columns != kPointColumns || fShown > fData.quakes.size()) {
        fFindings.wrong("earthquakes up to " + std::to_string(fShown));
        return;
    }
    for (std::size_t i = 0; i < update.count; ++i) {
        const auto& expected = fData.quakes[update.first + i].point;
        if (!std::equal(expected, expected + kPointColumns, &update.numbers[i * kPointColumns])) {
            fFindings.wrong("earthquake " + std::to_string(update.first + i));
            return;
        }
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
    if (fPicked != expectedPick(shown) || fPickedVisible != fPick.has_value()) {
        fFindings.wrong("the picked earthquake \"" + fPicked + '"' + inFrame);
    }
}

QuakeCheck::Place QuakeCheck::pick(std::uint64_t frame) {
    constexpr std::uint64_t kStride = 7;  // wanders over the map
    const auto& point = fData.quakes[frame * kStride % shownIn(frame)].point;
    fPick = Place{point[0], point[1]};
    return *fPick;
}

std::size_t QuakeCheck::shownIn(std::uint64_t frame) const {
    const auto frames = static_cast<std::int64_t>(frame % kFramesPerWeek) + 1;
    const std::int64_t now = fData.quakes.front().timeMs + frames * kMillisecondsPerFrame;
    const auto later =
        std::ranges::lower_bound(fData.quakes, now, {}, &ReferenceData::Quake::timeMs);
    return static_cast<std::size_t>(later - fData.quakes.begin());
}

std::string QuakeCheck::expectedPick(std::size_t shown) const {
    if (!fPick) return {};
    const auto distance = [this](const ReferenceData::Quake& quake) {
        const double dx = double{quake.point[0]} - double{(*fPick)[0]};
        const double dy = double{quake.point[1]} - double{(*fPick)[1]};
        return dx * dx + dy * dy;
    };
    // From the latest back, so that the latest of several equally near is found.
    const auto begin =
        std::make_reverse_iterator(fData.quakes.begin() + static_cast<std::ptrdiff_t>(shown));
    return std::ranges::min_element(begin, fData.quakes.rend(), {}, distance)->caption;
}

}  // namespace monitor::client
