#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Row.hpp"
#include "Show.hpp"

namespace bench {

namespace {

constexpr int kParts = 100;
constexpr double kMegabyte = 1e6;

/// What the page holds, a number for each part of all frames.
std::vector<double> sizes(std::int64_t frames) {
    Show show;
    auto& figure = show.window().figure("Everything");
    auto& line = figure.axes().line("line").keep(100'000);
    auto& points = figure.axes().scatter("points");
    auto& image = figure.axes().image("image");
    std::vector<float> numbers(256 * 256);
    const auto change = [&](std::int64_t frame) {
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            numbers[i] = static_cast<float>((i * 31 + static_cast<std::size_t>(frame) * 97) % 1000);
        }
        const std::span<const float> all(numbers);
        line.append(all.first(1000));
        points.set(all.first(10'000), all.last(10'000));
        image.set(256, 256, all);
    };
    std::vector<double> found;
    for (int part = 0; part < kParts; ++part) {
        show.draw(frames / kParts, change);
        found.push_back(usageOf(show.browser().process()).memory);
    }
    return found;
}

/// After so many tenths of all frames, right after a garbage collection, so to speak: the least of
/// the last tenth.
double after(int tenths, const std::vector<double>& found) {
    const auto end = found.begin() + tenths * kParts / 10;
    return *std::min_element(end - kParts / 10, end);
}

}  // namespace

Measurement memoryMeasurement() {
    return {"memory", [](bool quick) -> std::vector<Row> {
                const auto found = sizes(quick ? 1000 : 20'000);
                const std::string half = quick ? "500" : "10,000";
                const auto more = [&](int from, int to) {
                    return 100 * (after(to, found) / after(from, found) - 1);
                };
                return {{"memory, " + half + " frames", "% more", more(2, 5), 10},
                        {"the next " + half, "% more", more(5, 10)},
                        {"", "MB", after(10, found) / kMegabyte}};
            }};
}

}  // namespace bench
