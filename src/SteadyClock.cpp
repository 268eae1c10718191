#include "SteadyClock.hpp"

#include <atomic>

namespace kiro {

namespace {
std::atomic<SteadyTime (*)()> replacement = nullptr;
}

SteadyTime steadyNow() {
    const auto clock = replacement.load();
    return clock != nullptr ? clock() : std::chrono::steady_clock::now();
}

void replaceSteadyClock(SteadyTime (*clock)()) { replacement = clock; }

}  // namespace kiro
