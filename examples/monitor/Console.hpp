#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "annotated/Mutex.hpp"

namespace monitor {

/// Writes one line on standard error, whole, whichever thread says it; line breaks in `text` become
/// blanks. Nobody is told when standard error is full.
void say(std::string text);

/// Standard output takes no more; the text is one line.
class OutputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Writes `text` on standard output before it returns. Throws `OutputError`.
void print(std::string_view text);

/// Says what clients report of themselves. They may report anything, and as often as they like:
/// each text is shown on one line, in printable ASCII and cut short, and of those of a second only
/// the first ones; then how many more there were. Nothing of a text is kept. Any thread.
class ErrorLines {
  public:
    using Clock = std::chrono::steady_clock;

    explicit ErrorLines(std::function<void(std::string)> say = monitor::say,
                        std::function<Clock::time_point()> now = Clock::now);

    void add(std::string_view error) EXCLUDES_LOCK(fMutex);
    /// Says what was left out, if its second is over. To be called now and then.
    void look() EXCLUDES_LOCK(fMutex);
    /// Says what was left out.
    void end() EXCLUDES_LOCK(fMutex);

  private:
    void lookLocked() REQUIRES_LOCK(fMutex);
    void endLocked() REQUIRES_LOCK(fMutex);

    const std::function<void(std::string)> fSay;
    const std::function<Clock::time_point()> fNow;

    annotated::Mutex fMutex;
    Clock::time_point fSince GUARDED_BY(fMutex);
    /// Since then.
    std::uint64_t fCount GUARDED_BY(fMutex) = 0;
};

}  // namespace monitor
