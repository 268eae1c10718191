// A histogram that fills, beside the curve that it comes to.
#include <cmath>
#include <kirofigures/Window.hpp>
#include <random>
#include <string>
#include <vector>

int main() {
    constexpr double kLow = -4;
    constexpr double kWidth = 0.25;
    constexpr std::size_t kBins = 32;
    constexpr int kSamplesPerFrame = 100;
    const kirofigures::Regular centers{kLow + kWidth / 2, kWidth};

    kirofigures::Window window;
    auto& axes = window.figure("Normal distribution").axes();
    axes.x().label("deviation", "\u03c3");
    axes.y().label("samples in a bin");
    auto& bars = axes.bars("drawn");
    auto& curve = axes.line("expected");

    std::mt19937 random(1);
    std::normal_distribution<> normal;
    std::vector<double> counts(kBins);
    std::vector<double> expected(kBins);
    for (int samples = kSamplesPerFrame; window.isOpen(); samples += kSamplesPerFrame) {
        for (int i = 0; i < kSamplesPerFrame; ++i) {
            const double bin = std::floor((normal(random) - kLow) / kWidth);
            if (bin >= 0 && bin < kBins) ++counts[static_cast<std::size_t>(bin)];
        }
        for (std::size_t i = 0; i < kBins; ++i) {
            const double x = centers.start + static_cast<double>(i) * kWidth;
            expected[i] = samples * kWidth * 0.39894 * std::exp(-x * x / 2);
        }
        bars.set(centers, counts);
        curve.set(centers, expected);
        axes.title(std::to_string(samples) + " samples");
        window.draw();
    }
}
