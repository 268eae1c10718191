#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "annotated/Mutex.hpp"
#include "kirogateway/Gateway.hpp"

namespace monitor {

/// Says how it stands with the pages: that the last one has gone or one is back, that one is
/// connected but does not answer; and repeats the link while nobody has come. Any thread.
class PageWatch {
  public:
    using Clock = std::chrono::steady_clock;

    /// What is asked and told in a call of this; not to call it back.
    struct Outlets {
        std::function<kirogateway::Statistics()> ask;
        /// Whether pages were there and none is any more.
        std::function<bool()> isGone;
        std::function<void(std::string)> say;
        std::function<void()> repeatLink;
        std::function<Clock::time_point()> now = Clock::now;
    };

    /// How long a page may take to answer until it is called stalled.
    static constexpr std::chrono::seconds kStalledAfter{3};

    /// The link is repeated after `remind`, then after twice as long, and so on; 0: never.
    PageWatch(Outlets outlets, std::chrono::duration<double> remind);

    /// A frame waits for its answer, if none has waited before; or it was answered.
    void waiting(bool waits) EXCLUDES_LOCK(fMutex);
    /// To be called at intervals.
    void look() EXCLUDES_LOCK(fMutex);

  private:
    void note(bool gone, const kirogateway::Statistics& known) REQUIRES_LOCK(fMutex);
    void remind(Clock::time_point now, const kirogateway::Statistics& known) REQUIRES_LOCK(fMutex);
    void lookForStall(Clock::time_point now, const kirogateway::Statistics& known)
        REQUIRES_LOCK(fMutex);

    const Outlets fOutlets;
    annotated::Mutex fMutex;
    std::chrono::duration<double> fRemind GUARDED_BY(fMutex);
    Clock::time_point fReminderDue GUARDED_BY(fMutex);
    /// Since when frames have waited for an answer.
    std::optional<Clock::time_point> fWaitingSince GUARDED_BY(fMutex);
    /// Of a client that has stalled: how many pages the gateway had closed by then.
    std::optional<std::uint64_t> fClosedAtStall GUARDED_BY(fMutex);
    bool fGone GUARDED_BY(fMutex) = false;
};

}  // namespace monitor
