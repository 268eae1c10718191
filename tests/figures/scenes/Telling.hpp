#pragma once

#include <cmath>
#include <initializer_list>
#include <iomanip>
#include <iostream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "kirofigures/Window.hpp"

namespace scenes {

inline constexpr double kGap = std::numeric_limits<double>::quiet_NaN();
using Values = std::vector<double>;

/// So many values, of an index each.
template <typename Function>
Values values(int count, const Function& at) {
    Values all;
    for (int i = 0; i < count; ++i) all.push_back(at(i));
    return all;
}

/// Tells whoever has started this what axes were given: one line with an object in JSON, where a
/// gap is null. `kind` is the name by which the reader knows how that has to look.
inline void tell(const kirofigures::Axes& axes, const std::string& kind,
                 std::initializer_list<std::pair<const char*, Values>> columns) {
    std::cout << std::setprecision(17) << "data {\"axes\":" << axes.id() << ",\"kind\":\"" << kind
              << '"';
    for (const auto& [name, column] : columns) {
        std::cout << ",\"" << name << "\":[";
        const char* comma = "";
        for (const double value : column) {
            std::cout << comma;
            if (std::isnan(value))
                std::cout << "null";
            else
                std::cout << value;
            comma = ",";
        }
        std::cout << ']';
    }
    std::cout << "}" << std::endl;
}

}  // namespace scenes
