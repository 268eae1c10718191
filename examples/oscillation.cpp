// A line that grows.
#include <kirofigures/Window.hpp>

int main() {
    kirofigures::Window window;  // serves the page, prints its link, opens a browser
    auto& axes = window.figure("Damped oscillation").axes();
    axes.x().label("time", "s");
    auto& line = axes.line("amplitude");
    for (double t = 0; window.isOpen(); t += 0.01) {
        line.append(t, std::exp(-0.1 * t) * std::sin(5 * t));
        window.draw();
    }
}
