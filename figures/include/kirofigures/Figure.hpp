#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kirofigures/Axes.hpp"
#include "kirofigures/Controls.hpp"

namespace kirofigures {

/// A grid of axes under one title, with the controls that belong to it.
class Figure : public Object {
  public:
    explicit Figure(detail::Node& node) noexcept : Object(node) {}

    Figure& title(std::string_view text);
    /// Of the grid; unless set the page chooses. REQUIRES: at least 1.
    Figure& columns(int count);

    /// Makes further axes.
    Axes& axes(std::string_view title = {});

    // Each makes a control, which the page shows below the title.
    Button& button(std::string_view label);
    Slider& slider(std::string_view label, double low, double high, double value);
    Number& number(std::string_view label, double value);
    /// REQUIRES: there is an option.
    Choice& choice(std::string_view label, const std::vector<std::string>& options,
                   std::size_t value = 0);
};

}  // namespace kirofigures
