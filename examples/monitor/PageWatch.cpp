#include "PageWatch.hpp"

#include <utility>

namespace monitor {

namespace {

PageWatch::Clock::duration ticks(std::chrono::duration<double> time) {
    return std::chrono::duration_cast<PageWatch::Clock::duration>(time);
}

}  // namespace

PageWatch::PageWatch(Outlets outlets, std::chrono::duration<double> remind)
    : fOutlets(std::move(outlets)), fRemind(remind), fReminderDue(fOutlets.now() + ticks(remind)) {}

void PageWatch::waiting(bool waits) {
    Ticks none = 0;
    if (!waits) {
        fWaitingSince = none;
    } else {
        fWaitingSince.compare_exchange_strong(none, fOutlets.now().time_since_epoch().count());
    }
}

void PageWatch::look() {
    const auto now = fOutlets.now();
    note(fOutlets.isGone());
    remind(now);
    lookForStall(now);
}

void PageWatch::note(bool gone) {
    if (std::exchange(fGone, gone) == gone) return;
    if (!gone) {
        fOutlets.say("client there");
        return;
    }
    const auto stall = std::exchange(fStall, std::nullopt);
    // The gateway gives up a page that takes nothing. That is not the user's closing of a tab.
    const bool wasClosed = stall && fOutlets.ask().disconnected > stall->closed;
    fOutlets.say(wasClosed ? "client stalled for so long that it was disconnected" : "client gone");
}

void PageWatch::remind(Clock::time_point now) {
    if (fRemind.count() <= 0 || now < fReminderDue) return;
    if (fOutlets.ask().views > 0) {
        fRemind = std::chrono::duration<double>::zero();
        return;
    }
    fOutlets.repeatLink();
    fRemind *= 2;
    fReminderDue = now + ticks(fRemind);
}

void PageWatch::lookForStall(Clock::time_point now) {
    Ticks since = fWaitingSince;
    if (fStall) {
        if (since == fStall->since) return;
        fStall.reset();
        fOutlets.say("client answers again");
    }
    if (since == 0 || now - Clock::time_point(Clock::duration(since)) < kStalledAfter) return;
    const auto known = fOutlets.ask();
    if (known.pages == 0) {
        // A page that comes now has its full time.
        fWaitingSince.compare_exchange_strong(since, now.time_since_epoch().count());
        return;
    }
    fStall = {since, known.disconnected};
    fOutlets.say("client stalled: connected, but without an answer for " +
                 std::to_string(kStalledAfter.count()) + " s");
}

}  // namespace monitor
