#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace monitor::client {

/// The data files as the checking client reads them, for itself: nothing of it is the engine's.
struct ReferenceData {
    struct Quake {
        std::int64_t timeMs = 0;  ///< milliseconds since 1970 UTC
        float longitude = 0;
        float latitude = 0;
        float depth = 0;
        float magnitude = 0;
        std::string caption;  ///< the text that names it
    };

    std::vector<float> millivolts;
    std::vector<Quake> quakes;  ///< in the order of time
    // Of each vertex; NaN ends a strip.
    std::vector<float> coastLongitudes;
    std::vector<float> coastLatitudes;
};

/// Reads the three files in `directory`. Throws `std::runtime_error`.
[[nodiscard]] ReferenceData readReferenceData(const std::string& directory);

}  // namespace monitor::client
