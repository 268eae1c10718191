#pragma once

#include <chrono>
#include <cstdint>

#include "Contract.hpp"
#include "checked/Require.hpp"

namespace monitor::engine {

/// When each frame is due.
class Schedule {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// A frame may begin so late, and those after it catch up.
    static constexpr std::chrono::milliseconds kMostBehind{250};

    /// `speed`: 1 is real time. REQUIRES: it is above 0.
    Schedule(Time start, double speed)
        : fStart(start), fFrameTime(1 / (static_cast<double>(contract::kFramesPerSecond) * speed)) {
        KIROWEB_REQUIRE(speed > 0);
    }

    [[nodiscard]] Time due(std::uint64_t frame) const {
        return fStart + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            fFrameTime * static_cast<double>(frame));
    }

    /// Frame `frame` begins at `now`. What a client has kept waiting for long goes on from there,
    /// and does not race.
    void begin(std::uint64_t frame, Time now) {
        const auto late = now - due(frame);
        if (late > kMostBehind) fStart += late;
    }

  private:
    Time fStart;
    std::chrono::duration<double> fFrameTime;
};

}  // namespace monitor::engine
