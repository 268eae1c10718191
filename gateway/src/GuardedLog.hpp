#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "annotated/Mutex.hpp"

namespace kirogateway {

/// `text` without anything that could break or forge a line of a log: what is not printable ASCII
/// becomes "\xNN", the backslash is doubled, and what is too long is cut.
[[nodiscard]] std::string escaped(std::string_view text);

/// Writes lines about peers into the log "gateway", at a rate that hostile peers cannot drive up:
/// what is too much is counted, and the count is told with the next line. Any thread; no lock held
/// that an observer of the log might want.
class GuardedLog {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Writes a line, unless there were too many; `detail` comes from outside and is escaped. A line
    /// for which there is no memory is lost, and so is what an observer of the log throws.
    void write(std::string_view event, std::string_view detail,
               TimePoint now = std::chrono::steady_clock::now()) noexcept;

  private:
    [[nodiscard]] bool mayWriteLocked(TimePoint now) REQUIRES_LOCK(fMutex);

    annotated::Mutex fMutex;
    double fCredit GUARDED_BY(fMutex) = 20;
    TimePoint fLast GUARDED_BY(fMutex);
    std::size_t fSuppressed GUARDED_BY(fMutex) = 0;
};

}  // namespace kirogateway
