#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace monitor::engine {

/// One lead of an electrocardiogram at 360 Hz. It repeats itself for as long as it is asked.
struct EcgRecording {
    std::vector<float> millivolts;  ///< not empty

    [[nodiscard]] float at(std::uint64_t sample) const {
        return millivolts[sample % millivolts.size()];
    }
};

struct Earthquake {
    std::int64_t timeMs = 0;  ///< milliseconds since 1970 UTC
    float longitude = 0;      ///< degrees
    float latitude = 0;       ///< degrees
    float depth = 0;          ///< kilometres; negative above sea level
    float magnitude = 0;
    std::string place;  ///< UTF-8
};

/// What the engine draws.
struct DataSet {
    EcgRecording ecg;
    std::vector<Earthquake> earthquakes;  ///< in the order of time, not empty
    // Of each vertex of the coast, in degrees; NaN ends each line strip.
    std::vector<float> coastLongitudes;
    std::vector<float> coastLatitudes;
};

/// Reads the three files in `directory`. Throws `DataError`.
[[nodiscard]] DataSet readDataSet(const std::filesystem::path& directory);

}  // namespace monitor::engine
