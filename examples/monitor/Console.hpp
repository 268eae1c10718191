#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "annotated/Mutex.hpp"

namespace monitor {

/// Writes one line on standard error, whole, whichever thread says it.
void say(const std::string& text);

/// Says what clients report of themselves. They may report anything, and as often as they like:
/// each text is shown on one line, in printable ASCII and cut short, and of those of a second only
/// the first ones; then how many more there were. Any thread.
class ErrorLines {
  public:
    void add(std::string_view error) EXCLUDES_LOCK(fMutex);
    /// Says what was left out, if its second is over. To be called now and then.
    void look() EXCLUDES_LOCK(fMutex);
    /// Says what was left out.
    void end() EXCLUDES_LOCK(fMutex);

  private:
    using Clock = std::chrono::steady_clock;

    void lookLocked(Clock::time_point now) REQUIRES_LOCK(fMutex);
    void endLocked() REQUIRES_LOCK(fMutex);

    annotated::Mutex fMutex;
    Clock::time_point fSince GUARDED_BY(fMutex);
    /// Since then.
    std::uint64_t fCount GUARDED_BY(fMutex) = 0;
};

}  // namespace monitor
