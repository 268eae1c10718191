#pragma once

#include <boost/json/array.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"

namespace monitor {

/// The time as "2026-01-31T23:59:59.999Z".
[[nodiscard]] std::string timeText(std::chrono::system_clock::time_point time);

/// What clients and engine said last of the flushes, with the time of each. It stands in for the
/// host's own history of the same records, which counts records but not their sizes: a page could
/// fill it with errors of megabytes. Any thread.
class History {
  public:
    using Clock = std::chrono::system_clock;

    // The latest records are kept, as far as all of these hold.
    static constexpr std::size_t kMostRecords = 400;
    static constexpr std::size_t kMostBytes = std::size_t{1} << 20U;        ///< of all together
    static constexpr std::size_t kMostBytesOfOne = std::size_t{64} << 10U;  ///< the rest is cut off

    /// Listens to the host's log from now on.
    /// REQUIRES: no requestor that records has been made yet.
    explicit History(std::function<Clock::time_point()> now = Clock::now);

    /// Adds a record. Without memory it is left out.
    void add(std::string_view record) noexcept EXCLUDES_LOCK(fMutex);

    /// The records, oldest first. One that is a JSON object is given as such, with its "Time"
    /// first, any other as the text that it is.
    [[nodiscard]] boost::json::array records() const EXCLUDES_LOCK(fMutex);
    /// How many are not kept any more.
    [[nodiscard]] std::uint64_t leftOut() const EXCLUDES_LOCK(fMutex);

  private:
    struct Record {
        Clock::time_point time;
        std::string text;
    };

    const std::function<Clock::time_point()> fNow;

    mutable annotated::Mutex fMutex;
    std::deque<Record> fRecords GUARDED_BY(fMutex);
    std::size_t fBytes GUARDED_BY(fMutex) = 0;  ///< of the records' texts
    std::uint64_t fLeftOut GUARDED_BY(fMutex) = 0;

    kirohost::Scope fObserver;
};

}  // namespace monitor
