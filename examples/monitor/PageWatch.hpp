#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "kirogateway/Gateway.hpp"

namespace monitor {

/// Says how it stands with the pages: that the last one has gone or one is back, that one is
/// connected but does not answer; and repeats the link while nobody has come. Engine's thread.
class PageWatch {
  public:
    using Clock = std::chrono::steady_clock;

    /// All of these are called on the engine's thread.
    struct Outlets {
        std::function<kirogateway::Statistics()> ask;
        std::function<void(std::string)> say;
        std::function<void()> repeatLink;
        std::function<Clock::time_point()> now = Clock::now;
    };

    /// How long a page may take to answer until it is called stalled.
    static constexpr std::chrono::seconds kStalledAfter{3};

    /// The link is repeated after `remind`, then after twice as long, and so on; 0: never.
    PageWatch(Outlets outlets, std::chrono::duration<double> remind);

    /// A flush waits. To be called at intervals while it does.
    void waiting();
    /// A flush was answered.
    void answered();
    /// Whether pages were there and none is any more.
    void note(bool gone);

  private:
    void remind(Clock::time_point now);
    void lookForStall(Clock::time_point now);

    const Outlets fOutlets;
    std::chrono::duration<double> fRemind;
    std::optional<Clock::time_point> fReminderDue;
    /// Since when flushes have waited for an answer.
    std::optional<Clock::time_point> fWaitingSince;
    /// Of a client that has stalled: how many pages the gateway had closed by then.
    std::optional<std::uint64_t> fClosedAtStall;
    bool fGone = false;
};

}  // namespace monitor
