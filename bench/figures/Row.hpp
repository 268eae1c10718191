#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace bench {

/// One line of the table.
struct Row {
    std::string figure;
    std::string unit;
    double measured;
    std::optional<double> wanted{};  ///< nothing: it is told for what it is
    bool isAtLeast = false;          ///< otherwise what is wanted is the most
    std::optional<double> floor{};   ///< the same by hand, where there is such a thing
};

/// What one source contributes: one or several lines, that are measured together.
struct Measurement {
    std::string name;
    std::function<std::vector<Row>(bool quick)> take;
};

Measurement drawMeasurement();
std::vector<Measurement> pictureMeasurements();
Measurement firstPictureMeasurement();
Measurement memoryMeasurement();
std::vector<Measurement> viewMeasurements();
std::vector<Measurement> recordingMeasurements();

void printRowHeading();
void print(const Row& row);

/// REQUIRES: there is one.
[[nodiscard]] double median(std::vector<double> values);

}  // namespace bench
