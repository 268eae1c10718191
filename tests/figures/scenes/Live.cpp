// A scene that goes on: two axes with the same x, controls, and what somebody does told by lines.
#include <cmath>
#include <iostream>

#include "Scenes.hpp"

namespace scenes {

using namespace kirofigures;

namespace {

/// Words in a line.
template <typename... Words>
void tell(const char* what, const Words&... words) {
    std::cout << what;
    ((std::cout << ' ' << words), ...);
    std::cout << std::endl;
}

std::uint64_t idOf(const Object* object) { return object == nullptr ? 0 : object->id(); }

void tellWhatIsDone(Window& window, Axes& upper, Axes& lower) {
    upper.onLimits([](const View& view) {
        tell("limits", view.x.low, view.x.high, view.y.low, view.y.high, view.width,
             std::to_string(std::lround(view.height)) + (view.home ? " home" : ""));
    });
    lower.onPick([](const Pick& pick) { tell("lower", pick.index, pick.series != nullptr); });
    window.onKey([](const Key& key) { tell("key", key.key, idOf(key.axes)); });
}

void addControls(Figure& figure) {
    figure.button("Press").onChange([](Button&) { tell("button"); });
    figure.slider("Gain", 0, 10, 5).step(0.5).onChange([](Slider& slider) {
        tell("slider", slider.value());
    });
    figure.number("Count", 3).limits(1, 9).onChange([](Number& number) {
        tell("number", number.value());
    });
    figure.choice("Kind", {"first", "second", "third"}).onChange([](Choice& choice) {
        tell("choice", choice.value());
    });
}

}  // namespace

std::function<void()> addLive(Window& window) {
    Figure& figure = window.figure("Live").columns(1);
    addControls(figure);
    Axes& upper = figure.axes("upper").linkX(1);
    upper.x().label("time", "s").follow(10);
    upper.y().label("voltage", "mV").limits(-1, 1);
    Line& wave = upper.line("wave, \"quoted\"");
    Line& level = upper.line("level");
    Axes& lower = figure.axes("lower").linkX(1);
    lower.y().limits(0, 100);
    Scatter& points = lower.scatter("points");
    tellWhatIsDone(window, upper, lower);
    return [&wave, &level, &points, step = 0]() mutable {
        const double time = step * 0.25;
        wave.append(time, step % 9 == 4 ? std::nan("") : std::sin(time));
        level.append(time, 0.5);
        points.append(time, step % 100);
        ++step;
    };
}

}  // namespace scenes
