#include "PageWatch.hpp"

#include <utility>

namespace monitor {

PageWatch::PageWatch(Outlets outlets, std::chrono::duration<double> remind)
    : fOutlets(std::move(outlets)), fRemind(remind) {}

void PageWatch::waiting() {
    const auto now = fOutlets.now();
    remind(now);
    if (!fWaitingSince) fWaitingSince = now;
    if (!fClosedAtStall && now - *fWaitingSince >= kStalledAfter) lookForStall(now);
}

void PageWatch::answered() {
    fWaitingSince.reset();
    if (std::exchange(fClosedAtStall, std::nullopt)) fOutlets.say("client answers again");
}

void PageWatch::note(bool gone) {
    if (std::exchange(fGone, gone) == gone) return;
    if (!gone) {
        fOutlets.say("client there");
        return;
    }
    fWaitingSince.reset();
    const auto closedAtStall = std::exchange(fClosedAtStall, std::nullopt);
    // The gateway gives up a page that takes nothing. That is not the user's closing of a tab.
    const bool wasClosed = closedAtStall && fOutlets.ask().disconnected > *closedAtStall;
    fOutlets.say(wasClosed ? "client stalled for so long that it was disconnected" : "client gone");
}

void PageWatch::remind(Clock::time_point now) {
    if (fRemind.count() <= 0) return;
    const bool isFirst = !fReminderDue;
    if (!isFirst && now < *fReminderDue) return;
    if (!isFirst) {
        if (fOutlets.ask().views > 0) {
            fRemind = std::chrono::duration<double>::zero();
            return;
        }
        fOutlets.repeatLink();
        fRemind *= 2;
    }
    fReminderDue = now + std::chrono::duration_cast<Clock::duration>(fRemind);
}

void PageWatch::lookForStall(Clock::time_point now) {
    const auto known = fOutlets.ask();
    if (known.pages == 0) {
        fWaitingSince = now;  // a page that comes now has its full time
        return;
    }
    fClosedAtStall = known.disconnected;
    fOutlets.say("client stalled: connected, but without an answer for " +
                 std::to_string(kStalledAfter.count()) + " s");
}

}  // namespace monitor
