#include "Row.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>

namespace bench {

namespace {

using Text = std::array<char, 16>;

Text textOf(const std::optional<double>& value) {
    Text text{"-"};
    if (value) std::snprintf(text.data(), text.size(), "%.1f", *value);
    return text;
}

/// A screen shows 60 frames in a little less, or a little more, than a second.
bool isReached(const Row& row, double wanted) {
    return row.isAtLeast ? std::round(row.measured) >= wanted : row.measured <= wanted;
}

}  // namespace

void printRowHeading() {
    std::printf("%-34s %-9s %9s %9s  %-8s %s\n", "figure", "unit", "measured", "floor", "wanted",
                "reached");
    std::fflush(stdout);
}

void print(const Row& row) {
    std::printf("%-34s %-9s %9.1f %9s", row.figure.c_str(), row.unit.c_str(), row.measured,
                textOf(row.floor).data());
    if (row.wanted) {
        std::printf("  %s %-5.0f %s", row.isAtLeast ? ">=" : "<=", *row.wanted,
                    isReached(row, *row.wanted) ? "yes" : "no");
    }
    std::printf("\n");
    std::fflush(stdout);
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace bench
