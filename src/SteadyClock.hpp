#pragma once

#include <chrono>

namespace kiro {

using SteadyTime = std::chrono::steady_clock::time_point;

/// The library's one reading of the steady clock. Any thread.
SteadyTime steadyNow();

/// Has `steadyNow` answered by `clock`; null restores the real clock. For tests.
void replaceSteadyClock(SteadyTime (*clock)());

}  // namespace kiro
