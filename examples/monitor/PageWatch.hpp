#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "kirogateway/Gateway.hpp"

namespace monitor {

/// Says how it stands with the pages: that the last one has gone or one is back, that one is
/// connected but does not answer; and repeats the link while nobody has come.
class PageWatch {
  public:
    using Clock = std::chrono::steady_clock;

    /// What `look` asks and tells, on its thread.
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

    /// A frame waits for its answer, if none has waited before; or it was answered. Any thread.
    void waiting(bool waits);
    /// To be called at intervals, on one thread.
    void look();

  private:
    using Ticks = Clock::rep;
    struct Stall {
        Ticks since;
        std::uint64_t closed;  ///< how many pages the gateway had closed by then
    };

    void note(bool gone);
    void remind(Clock::time_point now);
    void lookForStall(Clock::time_point now);

    const Outlets fOutlets;
    std::chrono::duration<double> fRemind;
    Clock::time_point fReminderDue;
    /// Since when frames have waited for an answer; 0: none does.
    std::atomic<Ticks> fWaitingSince = 0;
    std::optional<Stall> fStall;
    bool fGone = false;
};

}  // namespace monitor
