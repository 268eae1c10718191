// Scenes that are only looked at. Each axes has one series, whose data are told.
#include <cmath>
#include <initializer_list>
#include <iomanip>
#include <iostream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "Scenes.hpp"

namespace scenes {

using namespace kirofigures;

namespace {

constexpr double kGap = std::numeric_limits<double>::quiet_NaN();
using Values = std::vector<double>;
using Columns = std::initializer_list<std::pair<const char*, Values>>;

/// So many values, of an index each.
template <typename Function>
Values values(int count, const Function& at) {
    Values all;
    for (int i = 0; i < count; ++i) all.push_back(at(i));
    return all;
}

/// Tells whoever has started this what axes will be given: one line with an object in JSON, where a
/// gap is null. `kind` is the name by which the reader knows how that has to look.
Axes& told(Axes& axes, const std::string& kind, Columns columns) {
    std::cout << std::setprecision(17) << R"(data {"axes":)" << axes.id() << R"(,"kind":")" << kind
              << '"';
    for (const auto& [name, column] : columns) {
        std::cout << ",\"" << name << "\":";
        char before = '[';
        for (const double value : column) {
            std::cout << std::exchange(before, ',');
            std::isnan(value) ? std::cout << "null" : std::cout << value;
        }
        std::cout << ']';
    }
    std::cout << "}" << std::endl;
    return axes;
}

Axes& framed(Figure& figure, const std::string& title) {
    Axes& axes = figure.axes(title);
    axes.x().limits(0, 10);
    axes.y().limits(-2, 2);
    return axes;
}
Axes& framed(Figure& figure, const std::string& kind, Columns columns) {
    return told(framed(figure, kind), kind, columns);
}

double wave(double x) { return 1.5 * std::sin(1.3 * x) * std::cos(0.4 * x); }
const auto kPlaces = values(41, [](int i) { return i * 0.25; });
/// With a gap of several elements, and one element alone between two gaps.
const auto kWave = values(
    41, [](int i) { return (i >= 10 && i < 15) || i == 30 || i == 32 ? kGap : wave(i * 0.25); });

void addLines(Figure& figure) {
    framed(figure, "line", {{"x", kPlaces}, {"y", kWave}}).line().set(kPlaces, kWave);
    const std::pair<Steps, const char*> steps[] = {{Steps::kBefore, "steps before"},
                                                   {Steps::kAfter, "steps after"},
                                                   {Steps::kMiddle, "steps middle"}};
    for (const auto& [where, kind] : steps) {
        Axes& stepped = framed(figure, kind, {{"x", kPlaces}, {"y", kWave}});
        stepped.line().set(Regular{0, 0.25}, kWave).steps(where);
    }
    Axes& area = framed(figure, "area", {{"x", kPlaces}, {"y", kWave}, {"base", {-1}}});
    area.area().set(kPlaces, kWave).base(-1);
    const Values high = values(41, [](int i) { return i == 20 ? kGap : 1 + 0.02 * i; });
    Axes& band = framed(figure, "band", {{"x", kPlaces}, {"low", kWave}, {"high", high}});
    band.band().set(kPlaces, kWave, high);
}

void addMarks(Figure& figure) {
    const Values x = {0.5, 1.5, 3, 4.5, 7, 9.5};
    const Values y = {1, -1.5, kGap, 0.25, 1.75, -0.5};
    framed(figure, "bars", {{"x", x}, {"y", y}, {"base", {-0.5}}, {"width", {0.8}}})
        .bars()
        .set(x, y)
        .base(-0.5);
    const Values minus = {0.25, 0.5, 0.1, 0.75, 1, 0.1};
    const Values plus = {0.75, 0.1, 0.1, 0.75, 0.2, 1};
    framed(figure, "error bars", {{"x", x}, {"y", y}, {"minus", minus}, {"plus", plus}})
        .errorBars()
        .set(x, y, minus, plus);
    const Values size = {4, 8, 12, 16, 20, 40};
    Axes& scatter = framed(figure, "scatter", {{"x", x}, {"y", y}, {"size", size}});
    scatter.scatter().set(x, y, {.size = size});

    // So many that they are stamped, one of them larger than a stamp.
    const Values many = values(1500, [](int i) { return 9.9 * std::fmod(i * 0.618034, 1); });
    const Values far = values(1500, [](int i) { return i == 7 ? kGap : 1.8 * std::sin(i * 0.37); });
    const Values sizes = values(1500, [](int i) { return i == 700 ? 70. : 3; });
    Axes& stamped = framed(figure, "scatter", {{"x", many}, {"y", far}, {"size", sizes}});
    stamped.scatter().set(many, far, {.size = sizes});
}

void addShapes(Figure& figure) {
    // A square with a hole, and a triangle.
    const Values x = {1, 6, 6, 1, kGap, 2, 4, 4, 2, kGap, 7, 9, 8};
    const Values y = {-1.5, -1.5, 1.5, 1.5, kGap, -0.5, -0.5, 0.5, 0.5, kGap, -1, -1, 1};
    framed(figure, "polygon", {{"x", x}, {"y", y}}).polygon().set(x, y);
    framed(figure, "outline", {{"x", x}, {"y", y}}).outline().set(x, y);
    const Values z = values(12, [](int i) { return i == 5 ? kGap : i * 1.0; });
    Axes& image =
        framed(figure, "image",
               {{"z", z}, {"x", {1, 9}}, {"y", {-1.5, 1.5}}, {"rows", {3}}, {"limits", {0, 11}}});
    image.image().set(3, 4, z).x(1, 9).y(-1.5, 1.5).colorMap(ColorMap::kGray).limits(0, 11);
}

void addReferences(Figure& figure) {
    Axes& across = framed(figure, "line", {{"x", {-1, 11}}, {"y", {0.5, 0.5}}});
    across.horizontal(0.5).dash(Dash::kSolid).color("#0068ad");
    Axes& up = framed(figure, "line", {{"x", {4, 4}}, {"y", {-3, 3}}});
    up.vertical(4).dash(Dash::kSolid).color("#0068ad");
    const Columns wide = {{"x", {0, 10}}, {"y", {1, 1}}};
    framed(figure, "dashed", wide).horizontal(1).width(4).color("#0068ad");
    Axes& dotted = framed(figure, "dotted", wide);
    dotted.horizontal(1).dash(Dash::kDotted).width(4).color("#0068ad");
    Axes& span = framed(figure, "rectangle", {{"x", {2, 3.5}}, {"y", {-3, 3}}});
    span.verticalSpan(2, 3.5).opacity(0.4).color("#0068ad");
    Axes& level = framed(figure, "rectangle", {{"x", {-1, 11}}, {"y", {-1, 0.5}}});
    level.horizontalSpan(-1, 0.5).opacity(0.4).color("#0068ad");
    Axes& text = framed(figure, "text", {{"x", {9}}, {"y", {-1}}});
    Text& right = text.text(9, -1, "HHLL").anchor(Anchor::kRight);
    right.fontSize(32).color("#0068ad");
}

/// A line by itself.
Axes& addLine(Figure& figure, const char* title, const Values& x, const Values& y) {
    Axes& axes = told(figure.axes(title), "line", {{"x", x}, {"y", y}});
    axes.line().set(x, y);
    return axes;
}

/// A line whose x is far from 0, and hardly moves.
void addOffset(Figure& figure, const char* title, double start, double step) {
    addLine(figure, title, values(41, [=](int i) { return start + i * step; }),
            values(41, [=](int i) { return start / 2 + wave(i * 0.25) * step; }));
}

}  // namespace

void addKinds(Window& window) {
    Figure& figure = window.figure("Kinds").columns(6);
    addLines(figure);
    addMarks(figure);
    addShapes(figure);
    addReferences(figure);
}

void addCases(Window& window) {
    Figure& figure = window.figure("Cases").columns(4);
    addOffset(figure, "1e-9", 0, 1e-9);
    addOffset(figure, "1e9", 1e9, 0.125);
    addOffset(figure, "1e15", 1e15, 2);
    addOffset(figure, "-1e-300", -1e-300, 1e-301);
    const Values y =
        values(20001, [](int i) { return i == 9000 ? kGap : wave(i * 0.001) + (i % 7) * 0.1; });
    told(figure.axes("dense"), "line",
         {{"x", values(20001, [](int i) { return i * 0.001; })}, {"y", y}})
        .line()
        .set(Regular{0, 0.001}, y);

    const Values powers = values(30, [](int i) { return std::pow(10, i * 0.25 - 3); });
    const Values cubes = values(
        30, [&](int i) { return i == 12 ? -1 : std::pow(powers[static_cast<std::size_t>(i)], 3); });
    Axes& log = addLine(figure, "log", powers, cubes);
    log.x().scale(Scale::kLog);
    log.y().scale(Scale::kLog);
    addLine(figure, "time", values(73, [](int i) { return 1517443200.0 + i * 3600; }),
            values(73, [](int i) { return wave(i * 0.14); }))
        .x()
        .scale(Scale::kTime)
        .label("time");
    addLine(figure, "equal", values(60, [](int i) { return std::cos(i * 0.1); }),
            values(60, [](int i) { return std::sin(i * 0.1); }))
        .equalAspect();

    const Values pressures = values(41, [](int i) { return 500 + 300 * wave(i * 0.25); });
    Axes& second = told(figure.axes("second"), "line", {{"x", kPlaces}, {"y2", pressures}});
    second.y2().label("pressure", "hPa").limits(0, 1000);
    second.line().set(kPlaces, pressures).onSecondAxis();

    const Values value = {0, 1, 2, 3, kGap};
    const Values places = {1, 3, 5, 7, 9};
    Scatter& depth =
        framed(figure, "colored",
               {{"x", places}, {"y", Values(5, 0.5)}, {"value", value}, {"limits", {0, 3}}})
            .scatter("depth");
    depth.set(places, Values(5, 0.5), {.size = Values(5, 20), .value = value});
    depth.colorMap(ColorMap::kGray).limits(0, 3).colorBar();

    Axes& own = framed(figure, "line", {{"x", kPlaces}, {"y", kWave}});
    own.x().ticks({{1, "one"}, {1.01, "hidden"}, {9, "nine"}});
    own.line().set(kPlaces, kWave);

    const Columns newest = {{"x", {kPlaces.end() - 20, kPlaces.end()}},
                            {"y", {kWave.end() - 20, kWave.end()}}};
    Axes& follow = told(figure.axes("follow"), "line", newest);
    follow.x().follow(2.5);
    follow.line().set(kPlaces, kWave).keep(20);
}

void addLabels(Window& window) {
    Figure& figure =
        window.figure("A title that is much longer than the room that any phone has for it");
    Axes& axes = figure.axes("Axes with a title that is longer than the room that there is for it");
    axes.x().label("a label that goes on and on and does not fit on a small screen", "kg m s⁻²");
    axes.y().label("another label that goes on and on and does not fit anywhere", "mPa");
    for (const double i : {0, 1, 2, 3, 4, 5, 6, 7}) {
        axes.line("series " + std::to_string(std::lround(i))).set({0, 1}, {i, i + 0.5}).width(3);
    }
}

}  // namespace scenes
