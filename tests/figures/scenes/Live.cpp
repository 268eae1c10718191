// A scene that goes on: two axes with the same x, controls, and what somebody does told by lines.
#include <cmath>
#include <iostream>

#include "Scenes.hpp"

namespace scenes {

using namespace kirofigures;

namespace {

void tellWhatIsDone(Window& window, Axes& axes) {
    axes.onPick([](const Pick& pick) {
        std::cout << "pick " << pick.x << ' ' << pick.y << ' '
                  << (pick.series == nullptr ? 0 : pick.series->id()) << ' ' << pick.index
                  << std::endl;
    });
    axes.onLimits([](const View& view) {
        std::cout << "limits " << view.x.low << ' ' << view.x.high << ' ' << view.y.low << ' '
                  << view.y.high << ' ' << view.width << ' ' << view.height
                  << (view.home ? " home" : "") << std::endl;
    });
    window.onKey([](const Key& key) {
        std::cout << "key " << key.key << ' ' << (key.axes == nullptr ? 0 : key.axes->id())
                  << std::endl;
    });
}

void addControls(Figure& figure) {
    figure.button("Press").onChange([](Button&) { std::cout << "button" << std::endl; });
    figure.slider("Gain", 0, 10, 5).step(0.5).onChange([](Slider& slider) {
        std::cout << "slider " << slider.value() << std::endl;
    });
    figure.number("Count", 3).limits(1, 9).onChange([](Number& number) {
        std::cout << "number " << number.value() << std::endl;
    });
    figure.choice("Kind", {"first", "second", "third"}).onChange([](Choice& choice) {
        std::cout << "choice " << choice.value() << std::endl;
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
    tellWhatIsDone(window, upper);
    lower.onPick([](const Pick& pick) {
        std::cout << "lower " << pick.index << ' ' << (pick.series != nullptr) << std::endl;
    });
    return [&wave, &level, &points, step = 0]() mutable {
        const double time = step * 0.25;
        wave.append(time, step % 9 == 4 ? std::nan("") : std::sin(time));
        level.append(time, 0.5);
        points.append(time, step % 100);
        ++step;
    };
}

}  // namespace scenes
