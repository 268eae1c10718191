#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Frame.hpp"

namespace kirolink {

/// The receiving half of a numbered stream: says which frame comes next, keeps those that have come
/// too early, and asks for those that are missing. Not synchronised.
class NumberedReceiver {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    /// What has come too early is kept up to here; what is beyond will be asked for again.
    static constexpr std::size_t kMostHeld = std::size_t{16} << 20U;
    /// Until it is asked again, unless a round trip takes longer; then twice as long each time.
    static constexpr std::chrono::milliseconds kPatience{100};
    static constexpr std::chrono::milliseconds kMostPatience{2000};

    explicit NumberedReceiver(std::uint64_t next = 1) noexcept : fNext(next), fEnd(next) {}

    /// All below are there.
    [[nodiscard]] std::uint64_t next() const noexcept { return fNext; }
    /// A frame has come. True: it is the next one, and counts as taken; `takeHeld` may have some
    /// behind it. False: it is kept for later, or was there already. Throws std::bad_alloc.
    [[nodiscard]] bool arrived(std::uint64_t number, std::string_view bytes);
    /// The next frame, if it has come already; it counts as taken.
    [[nodiscard]] std::optional<std::string> takeHeld();
    /// The sender says that it has sent everything below `end`.
    void expect(std::uint64_t end);
    /// The sender says that it has sent again what was asked for: the rest can be asked for.
    void resent() noexcept;
    /// The question that is due, if one is. Throws std::bad_alloc.
    [[nodiscard]] std::optional<frame::Ask> ask(TimePoint now);
    /// How long an answer takes.
    void setRoundTrip(std::chrono::microseconds roundTrip) noexcept { fRoundTrip = roundTrip; }
    /// How often something has been missing.
    [[nodiscard]] std::uint64_t gaps() const noexcept { return fGaps; }

    /// Nothing is known to be missing.
    [[nodiscard]] bool isComplete() const noexcept { return fNext == fEnd; }

  private:
    [[nodiscard]] frame::Ask missing() const;

    std::uint64_t fNext;
    std::uint64_t fEnd;  ///< what is known to have been sent is below
    std::map<std::uint64_t, std::string> fHeld;
    std::size_t fHeldBytes = 0;
    std::uint64_t fGaps = 0;
    std::chrono::microseconds fRoundTrip{0};
    std::chrono::milliseconds fPatience = kPatience;
    std::uint64_t fNextWhenAsked = 0;
    std::uint64_t fNextWhenCalled = 0;
    std::optional<TimePoint> fAskAgain;  ///< empty: at once
};

}  // namespace kirolink
