#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace kirolink {

/// What an end takes from the world besides its cluster. Any thread.
struct Surroundings {
    std::function<std::chrono::steady_clock::time_point()> now;
    /// The time of day since 1970.
    std::function<std::chrono::microseconds()> wall;
    /// A number that nobody else draws.
    std::function<std::uint64_t()> random;

    /// The system's.
    [[nodiscard]] static Surroundings real();
};

}  // namespace kirolink
