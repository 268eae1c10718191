#include "Pace.hpp"

namespace kirogateway {

void Pace::restart(TimePoint now) noexcept {
    fTookAt = now;
    fIsBeyond = false;
}

const char* Pace::look(const Load& load, TimePoint now) noexcept {
    if (load.waiting == 0 || !load.isOffered || load.taken != fLastTaken) fTookAt = now;
    fLastTaken = load.taken;
    if (now - fTookAt > fPatience) return "it took nothing for too long";

    if (load.waiting + load.kept <= fShare) {
        fIsBeyond = false;
    } else if (!fIsBeyond) {
        fIsBeyond = true;
        fBeyondSince = now;
        fThen = load;
    } else if (now - fBeyondSince > fPatience) {
        // A single large message is no reason: nothing was added to it, and it is being taken.
        const auto taken = load.taken - fThen.taken;
        if (load.waiting >= load.kept && taken < load.added - fThen.added) {
            return "more waits for it than its share, and it takes less than it is sent";
        }
        // What was written of late is still on its way, or being read.
        const bool wasKept = fThen.kept > fShare / 2;
        // An eighth is for what frames consist of besides.
        if (load.kept > load.waiting && wasKept &&
            load.released - fThen.released < taken - taken / 8) {
            return "more is kept for it than its share, and it acknowledges less than it is sent";
        }
        fBeyondSince = now;
        fThen = load;
    }
    return nullptr;
}

}  // namespace kirogateway
