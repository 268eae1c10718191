#pragma once

#include <chrono>
#include <cstdint>

namespace kirolink {

/// Tells a node that hangs from a line that is slow. Silence alone does not: on a slow line the
/// question itself may wait for seconds behind what was sent before. So silence counts only once
/// all that was sent before has arrived on the node's machine, or when nothing arrives there any
/// more. Time is given from outside; one thread.
class Liveness {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// `silence`: when a node that hangs counts as lost. The node is to be asked for a sign at
    /// least once in half of it.
    Liveness(std::chrono::milliseconds silence, TimePoint now) : fHalf(silence / 2), fSince(now) {}

    /// Something came from the node.
    void heard(TimePoint now) noexcept {
        fState = State::kHeard;
        fSince = now;
    }

    /// Whether `isLost` has to be asked: it has been quiet for a while.
    [[nodiscard]] bool isQuiet(TimePoint now) const noexcept {
        return fState != State::kHeard || now - fSince >= fHalf;
    }
    /// To be called every now and then. `arrived`: all bytes so far that the node's machine has;
    /// `waiting`: those that are still on their way to it.
    [[nodiscard]] bool isLost(TimePoint now, std::uint64_t arrived,
                              std::uint64_t waiting) noexcept {
        switch (fState) {
            case State::kHeard:
                if (now - fSince < fHalf) return false;
                // By now it has been asked; what has to arrive ends with the question.
                fState = State::kAsked;
                fTarget = arrived + waiting;
                fArrived = arrived;
                fSince = now;
                [[fallthrough]];
            case State::kAsked:
                if (arrived < fTarget) return isStuck(now, arrived);
                fState = State::kAwaited;
                fSince = now;
                [[fallthrough]];
            case State::kAwaited:
                return now - fSince >= fHalf;
        }
        return false;
    }

  private:
    enum class State : std::uint8_t { kHeard, kAsked, kAwaited };

    [[nodiscard]] bool isStuck(TimePoint now, std::uint64_t arrived) noexcept {
        if (arrived != fArrived) {
            fArrived = arrived;
            fSince = now;
        }
        return now - fSince >= fHalf;
    }

    const std::chrono::milliseconds fHalf;
    State fState = State::kHeard;
    TimePoint fSince;  ///< of what `fState` says, or of the last byte that arrived
    std::uint64_t fTarget = 0;
    std::uint64_t fArrived = 0;
};

}  // namespace kirolink
