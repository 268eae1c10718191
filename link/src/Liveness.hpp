#pragma once

#include <chrono>
#include <cstdint>

namespace kirolink {

/// Tells a node that hangs from a line that is slow. Silence alone does not: on a slow line the
/// question itself may wait for seconds behind what was sent before. So a node is lost that does
/// not answer although its machine has the question, or whose machine takes nothing any more. Time
/// is given from outside; one thread.
class Liveness {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// `silence`: about when a node that hangs counts as lost.
    Liveness(std::chrono::milliseconds silence, TimePoint now)
        : fSilence(silence), fHeard(now), fProgress(now) {}

    /// Something came from the node.
    void heard(TimePoint now) noexcept {
        fHeard = now;
        fState = State::kQuiet;
    }
    /// Whether the node is to be asked for a sign.
    [[nodiscard]] bool mustAsk(TimePoint now) const noexcept {
        return fState == State::kQuiet && now - fHeard >= fSilence / 4;
    }
    /// It is asked. `end`: how many bytes have to arrive there, the question included.
    void asked(std::uint64_t end) noexcept {
        fState = State::kAsked;
        fEnd = end;
    }
    /// To be called every now and then. `arrived`: all bytes so far that the node's machine has;
    /// `waiting`: those that are still on their way to it.
    [[nodiscard]] bool isLost(TimePoint now, std::uint64_t arrived,
                              std::uint64_t waiting) noexcept {
        if (arrived != fArrived || waiting == 0) fProgress = now;
        fArrived = arrived;
        if (fState == State::kAsked && arrived >= fEnd) {
            fState = State::kAwaited;
            fAwaited = now;
        }
        if (fState == State::kAwaited && now - fAwaited >= fSilence / 2) return true;
        // On a lossy line a piece may have to be sent three times.
        return now - fProgress >= fSilence * 3 / 4;
    }

  private:
    enum class State : std::uint8_t { kQuiet, kAsked, kAwaited };

    const std::chrono::milliseconds fSilence;
    State fState = State::kQuiet;
    TimePoint fHeard;
    TimePoint fAwaited;   ///< since when the question is there
    TimePoint fProgress;  ///< when something arrived last, or nothing was on its way
    std::uint64_t fEnd = 0;
    std::uint64_t fArrived = 0;
};

}  // namespace kirolink
