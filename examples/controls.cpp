// Controls: a wave to play with.
#include <cmath>
#include <kirofigures/Window.hpp>
#include <numbers>
#include <vector>

int main() {
    constexpr double kStep = 0.001;
    kirofigures::Window window;
    auto& figure = window.figure("A wave to play with");
    auto& frequency = figure.slider("Frequency in Hz", 0.5, 20, 2);
    auto& amplitude = figure.number("Amplitude in V", 1).limits(0, 2);
    auto& shape = figure.choice("Shape", {"sine", "square"});
    figure.button("Reset").onChange([&](auto&) {
        frequency.value(2);
        amplitude.value(1);
        shape.value(0);
    });
    auto& axes = figure.axes();
    axes.x().label("time", "s");
    axes.y().label("voltage", "V").limits(-2, 2);
    auto& line = axes.line();

    std::vector<double> voltage(1000);
    for (; window.isOpen(); window.wait()) {
        for (std::size_t i = 0; i < voltage.size(); ++i) {
            const double turns = frequency.value() * static_cast<double>(i) * kStep;
            const double sine = std::sin(2 * std::numbers::pi * turns);
            const double wave = shape.value() == 0 ? sine : std::copysign(1.0, sine);
            voltage[i] = amplitude.value() * wave;
        }
        line.set(kirofigures::Regular{0, kStep}, voltage);
        window.draw();
    }
}
