#pragma once

#include <chrono>

#include "kiro/Export.hpp"

namespace kiro {

using SteadyTime = std::chrono::steady_clock::time_point;

/// The library's one reading of the steady clock. Any thread. Exported for the tests of what is
/// defined in headers.
KIROWEB_EXPORT SteadyTime steadyNow();

/// Has `steadyNow` answered by `clock`; null restores the real clock. For tests only: the header
/// is not installed.
KIROWEB_EXPORT void replaceSteadyClock(SteadyTime (*clock)());

}  // namespace kiro
