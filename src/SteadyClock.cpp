#include "SteadyClock.hpp"

#include "Replaceable.hpp"
#include "process/Immortal.hpp"

namespace kiro {

namespace {

using Clock = Replaceable<SteadyTime()>;

SteadyTime realNow() { return std::chrono::steady_clock::now(); }

Clock& steadyClock() {
    static Immortal<Clock> immortal(&realNow);
    return *immortal;
}

}  // namespace

SteadyTime steadyNow() { return steadyClock()(); }

void replaceSteadyClock(SteadyTime (*clock)()) {
    steadyClock().exchange(clock != nullptr ? clock : &realNow);
}

}  // namespace kiro
