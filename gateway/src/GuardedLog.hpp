#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "Clock.hpp"
#include "annotated/Mutex.hpp"
#include "text/Escape.hpp"

namespace kirogateway {

using text::escaped;

/// Writes lines about peers into the log "gateway", at a rate that hostile peers cannot drive up:
/// what is too much is counted, and the count is told with the next line. Any thread; no lock held
/// that an observer of the log might want.
class GuardedLog {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Each line begins with `whose`.
    explicit GuardedLog(std::string whose = {}) : fWhose(std::move(whose)) {}

    /// Writes a line, unless there were too many; `detail` comes from outside and is escaped.
    /// A line that cannot be written, for lack of memory or because an observer of the log throws,
    /// counts as left out.
    void write(std::string_view event, std::string_view detail, TimePoint now = timeNow()) noexcept;
    /// As `write`, with the text of the exception that is being handled as the detail.
    /// REQUIRES: called in a handler.
    void writeCaught(std::string_view event) noexcept;

  private:
    static constexpr double kBurst = 20;  // lines

    void writeLine(std::string_view event, std::string_view detail, std::size_t leftOut);
    [[nodiscard]] bool mayWriteLocked(TimePoint now) REQUIRES_LOCK(fMutex);

    const std::string fWhose;
    annotated::Mutex fMutex;
    double fCredit GUARDED_BY(fMutex) = kBurst;
    TimePoint fLast GUARDED_BY(fMutex);
    std::size_t fLeftOut GUARDED_BY(fMutex) = 0;
};

}  // namespace kirogateway
