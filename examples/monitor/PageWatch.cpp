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
    const annotated::Lock lock(fMutex);
    if (waits) {
        if (!fWaitingSince) fWaitingSince = fOutlets.now();
        return;
    }
    fWaitingSince.reset();
    if (std::exchange(fClosedAtStall, std::nullopt)) fOutlets.say("client answers again");
}

void PageWatch::look() {
    // The gateway's locks are taken before this one.
    const bool isGone = fOutlets.isGone();
    const auto known = fOutlets.ask();
    const annotated::Lock lock(fMutex);
    const auto now = fOutlets.now();
    note(isGone, known);
    remind(now, known);
    const bool isLong = fWaitingSince && now - *fWaitingSince >= kStalledAfter;
    if (isLong && !fClosedAtStall) lookForStall(now, known);
}

void PageWatch::note(bool gone, const kirogateway::Statistics& known) {
    if (std::exchange(fGone, gone) == gone) return;
    if (!gone) {
        fOutlets.say("client there");
        return;
    }
    fWaitingSince.reset();
    const auto closedAtStall = std::exchange(fClosedAtStall, std::nullopt);
    // The gateway gives up a page that takes nothing. That is not the user's closing of a tab.
    const bool wasClosed = closedAtStall && known.disconnected > *closedAtStall;
    fOutlets.say(wasClosed ? "client stalled for so long that it was disconnected" : "client gone");
}

void PageWatch::remind(Clock::time_point now, const kirogateway::Statistics& known) {
    if (fRemind.count() <= 0 || now < fReminderDue) return;
    if (known.views > 0) {
        fRemind = std::chrono::duration<double>::zero();
        return;
    }
    fOutlets.repeatLink();
    fRemind *= 2;
    fReminderDue = now + ticks(fRemind);
}

void PageWatch::lookForStall(Clock::time_point now, const kirogateway::Statistics& known) {
    if (known.pages == 0) {
        fWaitingSince = now;  // a page that comes now has its full time
        return;
    }
    fClosedAtStall = known.disconnected;
    fOutlets.say("client stalled: connected, but without an answer for " +
                 std::to_string(kStalledAfter.count()) + " s");
}

}  // namespace monitor
