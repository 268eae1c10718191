// Scenes that are only looked at. Each axes has one series, whose data are told.
#include <cmath>

#include "Scenes.hpp"
#include "Telling.hpp"

namespace scenes {

using namespace kirofigures;

namespace {

Axes& framed(Figure& figure, const char* title) {
    Axes& axes = figure.axes(title);
    axes.x().limits(0, 10);
    axes.y().limits(-2, 2);
    return axes;
}

double wave(double x) { return 1.5 * std::sin(1.3 * x) * std::cos(0.4 * x); }
const auto kPlaces = values(41, [](int i) { return i * 0.25; });
/// With a gap of several elements, and one element alone between two gaps.
const auto kWave = values(
    41, [](int i) { return (i >= 10 && i < 15) || i == 30 || i == 32 ? kGap : wave(i * 0.25); });

void addLines(Figure& figure) {
    Axes& line = framed(figure, "line");
    line.line().set(kPlaces, kWave);
    tell(line, "line", {{"x", kPlaces}, {"y", kWave}});

    const std::pair<Steps, const char*> steps[] = {{Steps::kBefore, "steps before"},
                                                   {Steps::kAfter, "steps after"},
                                                   {Steps::kMiddle, "steps middle"}};
    for (const auto& [where, kind] : steps) {
        Axes& stepped = framed(figure, kind);
        stepped.line().set(Regular{0, 0.25}, kWave).steps(where);
        tell(stepped, kind, {{"x", kPlaces}, {"y", kWave}});
    }
    Axes& area = framed(figure, "area");
    area.area().set(kPlaces, kWave).base(-1);
    tell(area, "area", {{"x", kPlaces}, {"y", kWave}, {"base", {-1}}});

    Axes& band = framed(figure, "band");
    const Values high = values(41, [](int i) { return i == 20 ? kGap : 1 + 0.02 * i; });
    band.band().set(kPlaces, kWave, high);
    tell(band, "band", {{"x", kPlaces}, {"low", kWave}, {"high", high}});
}

void addMarks(Figure& figure) {
    const Values x = {0.5, 1.5, 3, 4.5, 7, 9.5};
    const Values y = {1, -1.5, kGap, 0.25, 1.75, -0.5};
    const Values minus = {0.25, 0.5, 0.1, 0.75, 1, 0.1};
    const Values plus = {0.75, 0.1, 0.1, 0.75, 0.2, 1};
    Axes& bars = framed(figure, "bars");
    bars.bars().set(x, y).base(-0.5);
    tell(bars, "bars", {{"x", x}, {"y", y}, {"base", {-0.5}}, {"width", {0.8}}});

    Axes& errors = framed(figure, "error bars");
    errors.errorBars().set(x, y, minus, plus);
    tell(errors, "error bars", {{"x", x}, {"y", y}, {"minus", minus}, {"plus", plus}});

    Axes& scatter = framed(figure, "scatter");
    const Values size = {4, 8, 12, 16, 20, 40};
    scatter.scatter().set(x, y, {.size = size});
    tell(scatter, "scatter", {{"x", x}, {"y", y}, {"size", size}});

    // So many that they are stamped, one of them larger than a stamp.
    Axes& stamped = framed(figure, "stamped");
    const Values many = values(1500, [](int i) { return 9.9 * std::fmod(i * 0.618034, 1); });
    const Values far = values(1500, [](int i) { return i == 7 ? kGap : 1.8 * std::sin(i * 0.37); });
    const Values sizes = values(1500, [](int i) { return i == 700 ? 70. : 3; });
    stamped.scatter().set(many, far, {.size = sizes});
    tell(stamped, "scatter", {{"x", many}, {"y", far}, {"size", sizes}});
}

void addShapes(Figure& figure) {
    // A square with a hole, and a triangle.
    const Values x = {1, 6, 6, 1, kGap, 2, 4, 4, 2, kGap, 7, 9, 8};
    const Values y = {-1.5, -1.5, 1.5, 1.5, kGap, -0.5, -0.5, 0.5, 0.5, kGap, -1, -1, 1};
    Axes& polygon = framed(figure, "polygon");
    polygon.polygon().set(x, y);
    tell(polygon, "polygon", {{"x", x}, {"y", y}});

    Axes& outline = framed(figure, "outline");
    outline.outline().set(x, y);
    tell(outline, "outline", {{"x", x}, {"y", y}});

    Axes& reference = framed(figure, "reference");
    reference.horizontal(0.5).dash(Dash::kSolid).color("#0068ad");
    tell(reference, "line", {{"x", {-1, 11}}, {"y", {0.5, 0.5}}});

    Axes& span = framed(figure, "span");
    span.verticalSpan(2, 3.5).opacity(0.4).color("#0068ad");
    tell(span, "rectangle", {{"x", {2, 3.5}}, {"y", {-3, 3}}});

    Axes& text = framed(figure, "text");
    text.text(5, 0, "H H H").anchor(Anchor::kCenter).color("#0068ad");
    tell(text, "text", {{"x", {5}}, {"y", {0}}});

    Axes& image = framed(figure, "image");
    const Values z = values(12, [](int i) { return i == 5 ? kGap : i * 1.0; });
    image.image().set(3, 4, z).x(1, 9).y(-1.5, 1.5).colorMap(ColorMap::kGray).limits(0, 11);
    tell(image, "image",
         {{"z", z}, {"x", {1, 9}}, {"y", {-1.5, 1.5}}, {"rows", {3}}, {"limits", {0, 11}}});
}

/// A line whose x is far from 0, and hardly moves.
void addOffset(Figure& figure, const char* title, double start, double step) {
    Axes& axes = figure.axes(title);
    const Values x = values(41, [=](int i) { return start + i * step; });
    const Values y = values(41, [=](int i) { return start / 2 + wave(i * 0.25) * step; });
    axes.line().set(x, y);
    tell(axes, "line", {{"x", x}, {"y", y}});
}

}  // namespace

void addKinds(Window& window) {
    Figure& figure = window.figure("Kinds").columns(5);
    addLines(figure);
    addMarks(figure);
    addShapes(figure);
}

void addCases(Window& window) {
    Figure& figure = window.figure("Cases").columns(4);
    addOffset(figure, "1e-9", 0, 1e-9);
    addOffset(figure, "1e9", 1e9, 0.125);
    addOffset(figure, "1e15", 1e15, 2);
    addOffset(figure, "-1e-300", -1e-300, 1e-301);

    Axes& dense = figure.axes("dense");
    const Values x = values(20001, [](int i) { return i * 0.001; });
    const Values y =
        values(20001, [](int i) { return i == 9000 ? kGap : wave(i * 0.001) + (i % 7) * 0.1; });
    dense.line().set(Regular{0, 0.001}, y);
    tell(dense, "line", {{"x", x}, {"y", y}});

    Axes& log = figure.axes("log");
    log.x().scale(Scale::kLog);
    log.y().scale(Scale::kLog);
    const Values powers = values(30, [](int i) { return std::pow(10, i * 0.25 - 3); });
    const Values cubes = values(30, [&](int i) { return i == 12 ? -1 : std::pow(powers[i], 3); });
    log.line().set(powers, cubes);
    tell(log, "line", {{"x", powers}, {"y", cubes}});

    Axes& time = figure.axes("time");
    time.x().scale(Scale::kTime).label("time");
    const Values hours = values(73, [](int i) { return 1517443200.0 + i * 3600; });
    const Values heights = values(73, [](int i) { return wave(i * 0.14); });
    time.line().set(hours, heights);
    tell(time, "line", {{"x", hours}, {"y", heights}});

    Axes& second = figure.axes("second");
    second.y2().label("pressure", "hPa").limits(0, 1000);
    const Values pressures = values(41, [](int i) { return 500 + 300 * wave(i * 0.25); });
    second.line().set(kPlaces, pressures).onSecondAxis();
    tell(second, "line", {{"x", kPlaces}, {"y2", pressures}});

    Axes& equal = figure.axes("equal").equalAspect();
    const Values cosines = values(60, [](int i) { return std::cos(i * 0.1); });
    const Values sines = values(60, [](int i) { return std::sin(i * 0.1); });
    equal.line().set(cosines, sines);
    tell(equal, "line", {{"x", cosines}, {"y", sines}});

    Axes& colored = framed(figure, "colored");
    const Values value = {0, 1, 2, 3, kGap};
    const Values places = {1, 3, 5, 7, 9};
    colored.scatter("depth")
        .set(places, Values(5, 0.5), {.size = Values(5, 20), .value = value})
        .colorMap(ColorMap::kGray)
        .limits(0, 3)
        .colorBar();
    tell(colored, "colored",
         {{"x", places}, {"y", Values(5, 0.5)}, {"value", value}, {"limits", {0, 3}}});

    Axes& own = framed(figure, "own ticks");
    own.x().ticks({{1, "one"}, {1.01, "hidden"}, {9, "nine"}});
    own.line().set(kPlaces, kWave);
    tell(own, "line", {{"x", kPlaces}, {"y", kWave}});

    Axes& follow = figure.axes("follow");
    follow.x().follow(2.5);
    follow.line().set(kPlaces, kWave).keep(20);
    tell(follow, "line",
         {{"x", {kPlaces.end() - 20, kPlaces.end()}}, {"y", {kWave.end() - 20, kWave.end()}}});
}

void addLabels(Window& window) {
    Figure& figure =
        window.figure("A title that is much longer than the room that any phone has for it");
    Axes& axes = figure.axes("Axes with a title that is longer than the room that there is for it");
    axes.x().label("a label that goes on and on and does not fit on a small screen", "kg m s⁻²");
    axes.y().label("another label that goes on and on and does not fit anywhere", "mPa");
    for (int i = 0; i < 8; ++i) {
        axes.line("series " + std::to_string(i))
            .set(Values{0, 1}, Values{i * 1.0, i + 0.5})
            .width(3);
    }
}

}  // namespace scenes
