#include <boost/json/parse.hpp>
#include <boost/json/value_to.hpp>
#include <chrono>
#include <cmath>
#include <future>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "../gateway/Browser.hpp"
#include "Row.hpp"
#include "Show.hpp"

namespace bench {

namespace {

constexpr std::size_t kSamples = 1'000'000;
constexpr std::size_t kNew = 10'000;

// What a hand does `there` and back again, to `over`, whose middle is `place`.
constexpr const char* kTurnWheel = R"(
    const deltaY = there ? -200 : 200;
    over.dispatchEvent(new WheelEvent("wheel", { ...place, deltaY, ...how }));)";
constexpr const char* kDrag = R"(
    const clientX = place.clientX + (there ? 40 : -40);
    const finger = { ...how, pointerType: "touch", pointerId: 1 };
    over.dispatchEvent(new PointerEvent("pointerdown", { ...finger, ...place }));
    over.dispatchEvent(new PointerEvent("pointermove", { ...finger, ...place, clientX }));
    over.dispatchEvent(new PointerEvent("pointerup", { ...finger, ...place, clientX }));)";

/// Has a hand do this so often, and counts the animation frames up to the one in which the old
/// picture is no longer moved and stretched, which it is at once.
std::string repeated(const std::string& gesture, int count) {
    return R"(new Promise((resolve, reject) => {
        const over = document.querySelector(".u-over");
        const [figure] = kirowebPage.figures.values();
        const [view] = figure.axes.values();
        const { left, top, width, height } = over.getBoundingClientRect();
        const place = { clientX: left + width / 2, clientY: top + height / 2 };
        const how = { bubbles: true, cancelable: true };
        const found = [];
        const frameEnd = new MessageChannel();
        const act = () => {
            const there = found.length % 2 === 0;)" +
           gesture + R"(
            if (view.canvas.style.transform === "") reject(new Error("nothing was moved"));
            let frames = 0;
            const look = () => {
                ++frames;
                // Behind what the page itself does in this frame.
                frameEnd.port2.postMessage(null);
            };
            frameEnd.port1.onmessage = () => {
                if (view.canvas.style.transform !== "") return requestAnimationFrame(look);
                found.push(frames);
                if (found.length === )" +
           std::to_string(count) + R"() return resolve(found);
                // Not in step with the engine.
                setTimeout(act, 50 + 7 * (found.length % 11));
            };
            requestAnimationFrame(look);
        };
        act();
    }))";
}

/// How many frames each of the gestures took, while the engine draws on.
std::vector<double> framesOf(const std::string& gesture, bool quick) {
    using kirofigures::Outcome;
    std::vector<float> samples(kSamples);
    for (std::size_t i = 0; i < kSamples; ++i) {
        samples[i] = std::sin(static_cast<float>(i) / 20'000);
    }
    kirofigures::Window window(quietOptions());
    auto& axes = window.figure("1,000,000 samples").axes();
    axes.x().limits(0, 100);
    auto& line = axes.line().keep(kSamples);
    line.set(kirofigures::Regular{0, 1e-4}, samples);
    Browser browser("about:blank");
    const auto tab = browser.open(window.link());
    while (!window.draw().isPainted()) {
    }
    auto answer = std::async(std::launch::async, [&browser, &tab, &gesture, quick] {
        return browser.evaluate(tab, repeated(gesture, quick ? 3 : 50));
    });
    const std::span<const float> all(samples);
    for (std::size_t i = 0; answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
         ++i) {
        line.append(all.subspan(i % 50 * kNew, kNew));
        const auto drawn = window.draw();
        if (drawn.outcome == Outcome::kPainted || drawn.outcome == Outcome::kUnderWay) continue;
        throw std::runtime_error("a frame is " + std::string(nameOf(drawn.outcome)));
    }
    return boost::json::value_to<std::vector<double>>(boost::json::parse(answer.get()));
}

}  // namespace

std::vector<Measurement> viewMeasurements() {
    const auto measurement = [](const std::string& name, const char* gesture) -> Measurement {
        return {name, [name, gesture](bool quick) -> std::vector<Row> {
                    const auto frames = median(framesOf(gesture, quick));
                    return {{name + ", true picture", "frames", frames, 2}};
                }};
    };
    return {measurement("zoom", kTurnWheel), measurement("pan", kDrag)};
}

}  // namespace bench
