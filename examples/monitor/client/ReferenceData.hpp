#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace monitor::client {

/// The data files as the checking client reads them, for itself: nothing of it is the engine's.
struct ReferenceData {
    struct Quake {
        std::int64_t timeMs = 0;  ///< milliseconds since 1970 UTC
        /// Longitude, latitude, depth, magnitude: the four numbers of a point.
        float point[4] = {};
        std::string caption;  ///< the text that names it
    };

    std::vector<float> millivolts;
    std::vector<Quake> quakes;     ///< in the order of time
    std::vector<float> coastline;  ///< pairs of degrees; a pair of NaNs ends a strip
};

/// Reads the three files in `directory`. Throws `std::runtime_error`.
[[nodiscard]] ReferenceData readReferenceData(const std::string& directory);

}  // namespace monitor::client
