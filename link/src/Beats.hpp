#pragma once

#include <chrono>
#include <cstddef>

namespace kirolink {

/// The times of a link, the same at both ends.
inline constexpr std::chrono::milliseconds kBeat{300};
inline constexpr std::chrono::milliseconds kSilenceIsGone{
    1000};  ///< counts as gone for those who wait
inline constexpr std::chrono::milliseconds kSilenceIsEnd{10000};  ///< is over
/// So much is acknowledged without a beat.
inline constexpr std::size_t kAcknowledged = std::size_t{256} << 10U;

/// Sees when the caller itself stood still: it cannot say then that others were silent.
class Steps {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    /// Returns whether there was a pause before `now`.
    [[nodiscard]] bool paused(TimePoint now) noexcept {
        const bool was = fLast != TimePoint() && now - fLast > kSilenceIsGone;
        fLast = now;
        return was;
    }

  private:
    TimePoint fLast{};
};

}  // namespace kirolink
