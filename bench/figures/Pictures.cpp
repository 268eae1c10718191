#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Contract.hpp"
#include "Floor.hpp"
#include "Row.hpp"
#include "Show.hpp"
#include "engine/DataSet.hpp"
#include "engine/EcgFigure.hpp"
#include "engine/QuakeFigure.hpp"

namespace bench {

namespace {

using Numbers = std::vector<float>;

/// Made before, and drawn in turn: no frame is as the one before, and the engine computes nothing.
constexpr std::size_t kSets = 4;

template <typename Value>
std::vector<Numbers> makeSets(std::size_t count, const Value& valueOf) {
    std::vector<Numbers> sets(kSets, Numbers(count));
    for (std::size_t set = 0; set < kSets; ++set) {
        for (std::size_t i = 0; i < count; ++i) {
            sets[set][i] = static_cast<float>(valueOf(static_cast<double>(i), set));
        }
    }
    return sets;
}

std::vector<Numbers> makeRandom(std::size_t count) {
    std::mt19937 engine(7);
    std::uniform_real_distribution<double> distribution(0, 1);
    return makeSets(count, [&](double, std::size_t) { return distribution(engine); });
}

const Numbers& setOf(const std::vector<Numbers>& sets, std::int64_t frame) {
    return sets[static_cast<std::size_t>(frame) % kSets];
}

// --- What is drawn -----------------------------------------------------------------------------

constexpr std::size_t kPoints = 100'000;

std::vector<Row> newPoints(bool quick) {
    const auto floor = floorOf("points", quick);
    const auto xs = makeRandom(kPoints);
    const auto ys = makeSets(kPoints, [](double i, std::size_t set) {
        return std::sin(i / 900) + std::fmod(i * 0.61803, 1) + 0.1 * static_cast<double>(set);
    });
    Show show;
    auto& points = show.window().figure("100,000 points").axes().scatter();
    const auto costs = show.measure(
        quick, [&](std::int64_t frame) { points.set(setOf(xs, frame), setOf(ys, frame)); });
    return {{"points, all new", "frames/s", costs.framesPerSecond, 60, true, floor.framesPerSecond},
            {"", "ms main", costs.mainThread, 5, false, floor.mainThread},
            {"", "ms all", costs.processor, {}, false, floor.processor}};
}

/// Nothing but the limits is new, so that everything is drawn again and nothing travels.
std::vector<Row> samePoints(bool quick) {
    const auto floor = floorOf("points", quick);
    const auto numbers = makeRandom(kPoints);
    Show show;
    auto& axes = show.window().figure("100,000 points").axes();
    axes.scatter().set(numbers[0], numbers[1]);
    const auto costs = show.measure(quick, [&](std::int64_t frame) {
        axes.x().limits(0, 1 + 0.01 * std::sin(static_cast<double>(frame)));
    });
    return {{"points, drawn again", "ms all", costs.processor, 15, false, floor.processor},
            {"", "ms main", costs.mainThread, {}, false, floor.mainThread}};
}

std::vector<Row> line(bool quick) {
    constexpr std::size_t kSamples = 1'000'000;
    constexpr std::size_t kNew = 10'000;
    const auto floor = floorOf("line", quick);
    const auto sample = [](double i, std::size_t) {
        return std::sin(i / 20'000) + 0.2 * std::sin(i * i);
    };
    const auto all = makeSets(kSamples, sample);
    const auto added = makeSets(kNew, sample);
    Show show;
    auto& line = show.window().figure("1,000,000 samples").axes().line().keep(kSamples);
    line.set(kirofigures::Regular{0, 1e-4}, all[0]);
    const auto costs =
        show.measure(quick, [&](std::int64_t frame) { line.append(setOf(added, frame)); });
    return {{"line of 1,000,000", "ms all", costs.processor, 12, false, floor.processor},
            {"", "frames/s", costs.framesPerSecond, 60, true, floor.framesPerSecond}};
}

std::vector<Row> image(bool quick) {
    constexpr std::size_t kSize = 1024;
    const auto floor = floorOf("image", quick);
    const auto values = makeSets(kSize * kSize, [](double i, std::size_t set) {
        return std::sin(std::fmod(i, kSize) / 50 + i / 1e5 + static_cast<double>(set));
    });
    Show show;
    auto& image = show.window().figure("1024 x 1024").axes().image();
    const auto costs = show.measure(
        quick, [&](std::int64_t frame) { image.set(kSize, kSize, setOf(values, frame)); });
    return {{"image, all new", "ms all", costs.processor, 18, false, floor.processor},
            {"", "frames/s", costs.framesPerSecond, 50, true, floor.framesPerSecond}};
}

/// What the demo draws, at its own pace.
std::vector<Row> demo(bool quick) {
    using namespace ::monitor;
    constexpr auto kRate = static_cast<double>(contract::kFramesPerSecond);
    constexpr std::chrono::nanoseconds kPeriod{1'000'000'000 / contract::kFramesPerSecond};
    const auto data = engine::readDataSet(KIROWEB_BENCH_MONITOR_DATA_DIR);
    Show show;
    engine::EcgFigure heart(show.window(), data.ecg);
    engine::QuakeFigure quakes(show.window(), data);
    auto next = std::chrono::steady_clock::now();
    const auto costs = show.measure(quick, [&](std::int64_t) {
        heart.advance();
        quakes.advance();
        next = std::max(next + kPeriod, std::chrono::steady_clock::now());
        for (auto now = std::chrono::steady_clock::now(); now < next;
             now = std::chrono::steady_clock::now()) {
            show.window().wait(next - now);
        }
    });
    return {{"demo", "ms main", costs.mainThread, 4},
            {"", "ms all", costs.processor},
            {"", "frames/s", costs.framesPerSecond, kRate, true}};
}

}  // namespace

std::vector<Measurement> pictureMeasurements() {
    return {{"points, all new", newPoints},
            {"points, drawn again", samePoints},
            {"line of 1,000,000", line},
            {"image, all new", image},
            {"demo", demo}};
}

}  // namespace bench
