#pragma once

#include <algorithm>
#include <cstdint>

/// What the monitor's engine and its checking client agree on, beside the vocabulary of figures.
/// Nothing else is shared by the two.
namespace monitor::contract {

inline constexpr std::uint64_t kFramesPerSecond = 30;

// The strip chart: a frame adds 12 samples, the chart shows the last five seconds.
inline constexpr std::uint64_t kSamplesPerSecond = 360;
inline constexpr std::uint64_t kSamplesPerFrame = kSamplesPerSecond / kFramesPerSecond;
inline constexpr std::uint64_t kSecondsShown = 5;

// The map: 300 frames replay one week, then the week begins again.
inline constexpr std::uint64_t kFramesPerWeek = 300;
inline constexpr std::int64_t kMillisecondsPerFrame =
    std::int64_t{7} * 24 * 3600 * 1000 / std::int64_t{kFramesPerWeek};

/// How large an earthquake is drawn, in CSS pixels. One without a magnitude is drawn, too.
inline float diameterOf(float magnitude) { return 2 + 1.8F * std::max(magnitude, 0.0F); }

}  // namespace monitor::contract
