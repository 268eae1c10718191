#include "kirofigures/Figure.hpp"

#include <boost/json/array.hpp>

#include "Node.hpp"
#include "Text.hpp"

namespace kirofigures {

Figure& Figure::title(std::string_view text) {
    putText("title", text);
    return *this;
}

Figure& Figure::columns(int count) {
    if (count < 1) refuse("columns is " + std::to_string(count) + ": it has to be at least 1");
    node().put("columns", std::int64_t{count});
    return *this;
}

Axes& Figure::axes(std::string_view title) {
    return node().make<Axes>("axes", [title](Axes& made) {
        if (!title.empty()) made.title(title);
    });
}

Button& Figure::button(std::string_view label) {
    return node().make<Button>("button", [label](Button& made) { made.label(label); });
}

Slider& Figure::slider(std::string_view label, double low, double high, double value) {
    return node().make<Slider>("slider", [&](Slider& made) {
        made.label(label);
        made.limits(low, high);
        made.value(value);
    });
}

Number& Figure::number(std::string_view label, double value) {
    return node().make<Number>("number", [&](Number& made) {
        made.label(label);
        made.value(value);
    });
}

Choice& Figure::choice(std::string_view label, const std::vector<std::string>& options,
                       std::size_t value) {
    return node().make<Choice>("choice", [&](Choice& made) {
        made.label(label);
        made.setOptions(options);
        made.value(value);
    });
}

}  // namespace kirofigures
