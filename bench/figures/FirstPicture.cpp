#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "../gateway/Browser.hpp"
#include "CountingPort.hpp"
#include "Row.hpp"
#include "Show.hpp"

namespace bench {

namespace {

using std::chrono::steady_clock;

/// A picture of two figures.
void addFigures(kirofigures::Window& window) {
    for (const char* const title : {"One", "Other"}) {
        auto& axes = window.figure(title).axes();
        axes.x().label("time", "s");
        auto& line = axes.line("signal");
        for (int i = 0; i < 1000; ++i) line.append(i * 0.01, std::sin(i * 0.05));
    }
}

/// Milliseconds from the click on the link to the answer that the picture is on the screen.
double timeOfFirst(Browser& browser, kirofigures::Window& window, const std::string& link) {
    addFigures(window);
    const auto start = steady_clock::now();
    const auto tab = browser.open(link);
    // With two under way the second draw is about the first.
    auto drawn = window.draw();
    if (drawn.outcome == kirofigures::Outcome::kUnderWay) drawn = window.draw();
    const std::chrono::duration<double, std::milli> time = steady_clock::now() - start;
    if (!drawn.isPainted()) throw std::runtime_error("the first picture was not painted");
    browser.close(tab);
    return time.count();
}

struct Load {
    double requests = 0;
    double kilobytes = 0;
};

/// What a browser that has never seen the page asks for until it shows the picture, the data and
/// the headers included.
Load loadOfFirst(Browser& browser) {
    CountingPort counting;
    const auto here = "127.0.0.1:" + std::to_string(counting.port());
    auto options = quietOptions();
    options.extraHosts = {here};
    options.extraOrigins = {"http://" + here};
    kirofigures::Window window(options);
    auto link = window.link();
    const auto colon = link.rfind(':', link.find('/', std::string("http://").size()));
    const auto slash = link.find('/', colon);
    counting.handOnTo(static_cast<std::uint16_t>(std::stoi(link.substr(colon + 1))));
    link.replace(colon + 1, slash - colon - 1, std::to_string(counting.port()));
    timeOfFirst(browser, window, link);
    return {static_cast<double>(counting.requests()), static_cast<double>(counting.bytes()) / 1000};
}

std::vector<Row> firstPicture(bool quick) {
    Browser browser("about:blank");
    std::vector<double> times;
    for (int i = 0; i < (quick ? 1 : 11); ++i) {
        kirofigures::Window window(quietOptions());
        times.push_back(timeOfFirst(browser, window, window.link()));
    }
    const auto load = loadOfFirst(browser);
    return {{"first picture", "ms", median(times), 400},
            {"", "kB", load.kilobytes, 150},
            {"", "requests", load.requests, 8}};
}

}  // namespace

Measurement firstPictureMeasurement() { return {"first picture", firstPicture}; }

}  // namespace bench
