#include "kirofigures/Axes.hpp"

#include <array>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <cmath>
#include <optional>

#include "Node.hpp"
#include "Text.hpp"

namespace kirofigures {

namespace json = boost::json;

struct Axis::State {
    detail::Node& node;
    const char* const key;
    json::object properties{};
    Scale scale = Scale::kLinear;
    /// Fixed ones.
    std::optional<View::Range> limits{};

    [[noreturn]] void refuse(const std::string& what) const {
        node.refuse(std::string(key) + ": " + what);
    }
    void requireText(std::string_view text, const char* what) const {
        if (!detail::isUTF8(text)) refuse(std::string(what) + " is not UTF-8");
    }
    void requireFit(Scale wanted, const std::optional<View::Range>& range) const {
        if (wanted == Scale::kLog && range && range->low <= 0) {
            refuse("limits of a logarithmic axis have to be above 0");
        }
    }
};

Axis::Axis(detail::Node& node, const char* key) : fState(new State{node, key}) {}

Axis::~Axis() = default;

// An axis is one property, which is replaced as a whole.
void Axis::send() { fState->node.put(fState->key, fState->properties); }

Axis& Axis::label(std::string_view text, std::string_view unit) {
    fState->requireText(text, "label");
    fState->requireText(unit, "unit");
    fState->properties["label"] = text;
    fState->properties["unit"] = unit;
    send();
    return *this;
}

Axis& Axis::scale(Scale scale) {
    static constexpr std::array<const char*, 3> kNames{"linear", "log", "time"};
    fState->requireFit(scale, fState->limits);
    fState->scale = scale;
    fState->properties["scale"] = kNames.at(static_cast<std::size_t>(scale));
    send();
    return *this;
}

Axis& Axis::limits(double low, double high) {
    if (!std::isfinite(low) || !std::isfinite(high)) fState->refuse("limits have to be numbers");
    if (low >= high) fState->refuse("limits: the lower one is not below the upper one");
    const View::Range range{low, high};
    fState->requireFit(fState->scale, range);
    fState->limits = range;
    fState->properties["limits"] = json::array{low, high};
    send();
    return *this;
}

Axis& Axis::automatic() {
    fState->limits.reset();
    fState->properties.erase("limits");
    send();
    return *this;
}

Axis& Axis::follow(double width) {
    if (!std::isfinite(width) || width <= 0) fState->refuse("follow has to be a number above 0");
    fState->limits.reset();
    fState->properties["limits"] = json::object{{"follow", width}};
    send();
    return *this;
}

Axis& Axis::ticks(const std::vector<std::pair<double, std::string>>& marks) {
    json::array array;
    for (const auto& [place, text] : marks) {
        if (!std::isfinite(place)) fState->refuse("a tick's place has to be a number");
        fState->requireText(text, "a tick");
        array.push_back(json::array{place, text});
    }
    fState->properties.erase("ticks");
    if (!marks.empty()) fState->properties["ticks"] = std::move(array);
    send();
    return *this;
}

Axes::Axes(detail::Node& node) : Object(node), fX(node, "x"), fY(node, "y"), fY2(node, "y2") {}

Axes::~Axes() = default;

Axes& Axes::title(std::string_view text) {
    putText("title", text);
    return *this;
}

Axes& Axes::equalAspect(bool equal) {
    putFlag("equalAspect", equal);
    return *this;
}

Axes& Axes::linkX(int group) {
    node().put("linkX", std::int64_t{group});
    return *this;
}

Axes& Axes::legend(bool shown) {
    putFlag("legend", shown);
    return *this;
}

Axes& Axes::position(int row, int column) {
    if (row < 0 || column < 0) refuse("position is below 0");
    node().put("row", std::int64_t{row});
    node().put("column", std::int64_t{column});
    return *this;
}

template <typename Kind>
Kind& Axes::series(const char* type, std::string_view name) {
    return node().make<Kind>(type, [name](Kind& made) {
        if (!name.empty()) made.name(name);
    });
}

Line& Axes::line(std::string_view name) { return series<Line>("line", name); }
Area& Axes::area(std::string_view name) { return series<Area>("area", name); }
Band& Axes::band(std::string_view name) { return series<Band>("band", name); }
Scatter& Axes::scatter(std::string_view name) { return series<Scatter>("scatter", name); }
Bars& Axes::bars(std::string_view name) { return series<Bars>("bars", name); }
ErrorBars& Axes::errorBars(std::string_view name) { return series<ErrorBars>("errorBars", name); }
Outline& Axes::outline(std::string_view name) { return series<Outline>("outline", name); }
Polygon& Axes::polygon(std::string_view name) { return series<Polygon>("polygon", name); }
Image& Axes::image(std::string_view name) { return series<Image>("image", name); }

template <typename SetUp>
Reference& Axes::reference(const char* orientation, std::string_view name, const SetUp& place) {
    return node().make<Reference>("reference", [&](Reference& made) {
        if (!name.empty()) made.name(name);
        made.putWord("orientation", orientation);
        place(made);
    });
}

Reference& Axes::horizontal(double y, std::string_view name) {
    return reference("horizontal", name, [y](Reference& made) { made.at(y); });
}

Reference& Axes::vertical(double x, std::string_view name) {
    return reference("vertical", name, [x](Reference& made) { made.at(x); });
}

Reference& Axes::horizontalSpan(double low, double high, std::string_view name) {
    return reference("horizontal", name, [low, high](Reference& made) { made.span(low, high); });
}

Reference& Axes::verticalSpan(double low, double high, std::string_view name) {
    return reference("vertical", name, [low, high](Reference& made) { made.span(low, high); });
}

Text& Axes::text(double x, double y, std::string_view text) {
    return node().make<Text>("text", [&](Text& made) { made.text(text).at(x, y); });
}

void Axes::onPick(std::function<void(const Pick&)> callback) {
    putFlag("picks", callback != nullptr);
    fOnPick = std::move(callback);
}

void Axes::onLimits(std::function<void(const View&)> callback) { fOnLimits = std::move(callback); }

}  // namespace kirofigures
