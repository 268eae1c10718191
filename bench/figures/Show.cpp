#include "Show.hpp"

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "Row.hpp"

namespace bench {

namespace {

using kirofigures::Outcome;
using std::chrono::steady_clock;

/// Until everything that is made once has been made.
constexpr std::int64_t kFirstFrames = 30;

double since(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

}  // namespace

Costs Rounds::measure(const Browser& browser, const std::function<double(double)>& runFor) const {
    std::vector<double> rates;
    std::vector<double> mainThread;
    std::vector<double> processor;
    for (int round = 0; round < fCount; ++round) {
        const auto before = usageOf(browser.process());
        const auto start = steady_clock::now();
        const double frames = runFor(fSeconds);
        const double seconds = since(start);
        const auto after = usageOf(browser.process());
        if (!(frames > 0)) throw std::runtime_error("nothing was painted");
        rates.push_back(frames / seconds);
        mainThread.push_back(1000 * (after.mainThread - before.mainThread) / frames);
        processor.push_back(1000 * (after.processor - before.processor) / frames);
    }
    return {median(rates), median(mainThread), median(processor)};
}

kirofigures::WindowOptions quietOptions() {
    kirofigures::WindowOptions options;
    options.printsLink = options.opensBrowser = options.handlesSignals = false;
    options.timeout = std::chrono::seconds(60);
    options.underWay = 2;
    return options;
}

Show::Show() : fWindow(quietOptions()), fBrowser(fWindow.link()) {}

Costs Show::measure(bool quick, const std::function<void(std::int64_t)>& change) {
    draw(quick ? 2 : kFirstFrames, change);
    return Rounds(quick).measure(
        fBrowser, [this, &change](double seconds) { return drawFor(seconds, change); });
}

double Show::drawFor(double seconds, const std::function<void(std::int64_t)>& change) {
    int painted = 0;
    for (const auto start = steady_clock::now(); since(start) < seconds;)
        painted += drawOne(change);
    return painted;
}

void Show::draw(std::int64_t frames, const std::function<void(std::int64_t)>& change) {
    for (std::int64_t i = 0; i < frames; ++i) drawOne(change);
}

int Show::drawOne(const std::function<void(std::int64_t)>& change) {
    change(fFrame++);
    const auto drawn = fWindow.draw();
    if (drawn.outcome == Outcome::kUnderWay) return 0;
    if (drawn.isPainted()) return 1;
    throw std::runtime_error("a frame is " + std::string(nameOf(drawn.outcome)) + " " +
                             drawn.reason);
}

}  // namespace bench
