#pragma once

#include <cstddef>

#include "checked/Require.hpp"

namespace annotated {

/// The order in which locks nest: while one is held only locks further down may be taken. Locks of
/// the same rank never nest. docs/architecture.md says what each guards.
enum class Rank : unsigned char {
    kGatewayStop,  ///< a gateway's stop
    kRecorder,     ///< making the recorder of client messages
    kSender,       ///< a command sender's state machine
    kToken,        ///< the token slot
    kTokenTimes,   ///< the token's time stamps
    kOnce,         ///< something made once, the recorder among them
    kFactory,      ///< what makes the process-wide endpoint
    kLinkReceive,  ///< a gateway's end of a link: what comes, one after the other
    kPublish,      ///< the message service's order of publishing
    kMemory,       ///< whose views may be ended to make room
    kViews,        ///< the gateway's list of views
    kView,         ///< one view of the gateway
    kBus,          ///< the message service's queue and subscriptions
    kLinkSend,     ///< what an end of a link sends: its numbers and its log
    kLeaf,         ///< everything else: nothing is locked while it is held
};

#if defined(KIROWEB_CHECKED)

/// What the calling thread holds. Seen across shared libraries, since locks nest across them.
class __attribute__((visibility("default"))) HeldRanks {
  public:
    static HeldRanks& ofThisThread() {
        static thread_local HeldRanks held;
        return held;
    }
    void push(Rank rank) {
        KIROWEB_REQUIRE(fCount < kMost);
        KIROWEB_REQUIRE(fCount == 0 || fRanks[fCount - 1] < rank);  // the lock order
        fRanks[fCount++] = rank;
    }
    void pop(Rank rank) {
        // Not always the last one: a scope may hold two locks that end in another order.
        std::size_t at = fCount;
        while (at > 0 && fRanks[at - 1] != rank) --at;
        KIROWEB_REQUIRE(at > 0);
        for (; at < fCount; ++at) fRanks[at - 1] = fRanks[at];
        --fCount;
    }

  private:
    static constexpr std::size_t kMost = 16;
    Rank fRanks[kMost]{};
    std::size_t fCount = 0;
};

#endif

}  // namespace annotated
