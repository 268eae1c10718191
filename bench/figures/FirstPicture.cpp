#include <chrono>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "../gateway/Browser.hpp"
#include "Row.hpp"
#include "Show.hpp"

namespace bench {

namespace {

using std::chrono::steady_clock;

/// Milliseconds from the click to the answer that a picture of two figures is on the screen.
double timeOfFirst(Browser& browser) {
    kirofigures::Window window(quietOptions());
    for (const char* const title : {"One", "Other"}) {
        auto& axes = window.figure(title).axes();
        axes.x().label("time", "s");
        auto& line = axes.line("signal");
        for (int i = 0; i < 1000; ++i) line.append(i * 0.01, std::sin(i * 0.05));
    }
    const auto start = steady_clock::now();
    const auto tab = browser.open(window.link());
    // With two under way the second draw is about the first.
    auto drawn = window.draw();
    if (drawn.outcome == kirofigures::Outcome::kUnderWay) drawn = window.draw();
    const std::chrono::duration<double, std::milli> time = steady_clock::now() - start;
    if (!drawn.isPainted()) throw std::runtime_error("the first picture was not painted");
    browser.close(tab);
    return time.count();
}

}  // namespace

Measurement firstPictureMeasurement() {
    return {"first picture", [](bool quick) -> std::vector<Row> {
                Browser browser("about:blank");
                std::vector<double> times;
                for (int i = 0; i < (quick ? 1 : 11); ++i) times.push_back(timeOfFirst(browser));
                return {{"first picture", "ms", median(times), 400}};
            }};
}

}  // namespace bench
