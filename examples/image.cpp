// A picture that changes: waves from two sources, each value a colour.
#include <cmath>
#include <kirofigures/Window.hpp>
#include <vector>

int main() {
    constexpr std::size_t kSize = 256;
    constexpr double kEdge = 10;  // cm
    constexpr double kDistance = 3;

    kirofigures::Window window;
    auto& axes = window.figure("Waves from two sources").axes();
    axes.equalAspect();
    axes.x().label("x", "cm");
    axes.y().label("y", "cm");
    auto& image = axes.image("height in mm");
    image.x(-kEdge, kEdge).y(-kEdge, kEdge).limits(-2, 2).colorMap(kirofigures::ColorMap::kCividis);

    std::vector<float> height(kSize * kSize);
    for (double time = 0; window.isOpen(); time += 0.1) {
        for (std::size_t row = 0; row < kSize; ++row) {
            for (std::size_t column = 0; column < kSize; ++column) {
                const double x = kEdge * (2.0 * static_cast<double>(column) / kSize - 1);
                const double y = kEdge * (2.0 * static_cast<double>(row) / kSize - 1);
                const double left = std::sin(4 * std::hypot(x + kDistance, y) - time);
                const double right = std::sin(4 * std::hypot(x - kDistance, y) - time);
                height[row * kSize + column] = static_cast<float>(left + right);
            }
        }
        image.set(kSize, kSize, height);
        window.draw();
    }
}
