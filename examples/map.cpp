// A map that says what is pointed at. It draws when there is something new, and waits otherwise.
#include <array>
#include <fstream>
#include <kirofigures/Window.hpp>
#include <limits>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    // One pair of degrees a line; an empty line ends a stretch of coast.
    std::vector<float> longitudes;
    std::vector<float> latitudes;
    std::ifstream file(argc > 1 ? argv[1] : COASTLINE);
    std::string line;
    for (std::getline(file, line); std::getline(file, line);) {
        const auto comma = line.find(',');
        const bool isEnd = comma == std::string::npos;
        constexpr float kEnd = std::numeric_limits<float>::quiet_NaN();
        longitudes.push_back(isEnd ? kEnd : std::stof(line));
        latitudes.push_back(isEnd ? kEnd : std::stof(line.substr(comma + 1)));
    }
    const std::array<const char*, 4> names{"Lima", "Nairobi", "Reykjavik", "Tokyo"};

    kirofigures::Window window;
    auto& axes = window.figure("A map: point at it").axes();
    axes.x().label("longitude", "\u00b0").limits(-180, 180);
    axes.y().label("latitude", "\u00b0").limits(-90, 90);
    axes.outline().set(longitudes, latitudes).color("#808080");
    auto& cities = axes.scatter().set({-77.0, 36.8, -21.9, 139.7}, {-12.0, -1.3, 64.1, 35.7});
    auto& picked = axes.text(0, 0, "");
    axes.onPick([&](const kirofigures::Pick& pick) {
        const bool isCity = pick.series == &cities;
        picked.at(pick.x, pick.y).text(isCity ? names[pick.index] : "no city");
    });
    for (; window.isOpen(); window.wait()) window.draw();
}
