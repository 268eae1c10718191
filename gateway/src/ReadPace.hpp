#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

#include "checked/Require.hpp"

namespace kirogateway {

/// How fast one page is read from: as if it came over a fast network, however near it is. What a
/// page says takes time of the gateway's thread and of the delivery thread, which everybody shares;
/// a page that has always more to say must leave most of it to others. One thread.
class ReadPace {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Duration = TimePoint::duration;

    /// How many bytes go at once when little was said before.
    static constexpr std::size_t kBurst = 256UL * 1024;

    /// `rate` is in bytes a second. REQUIRES: it is greater than 0.
    explicit ReadPace(std::size_t rate) noexcept : fRate(rate) { KIROWEB_REQUIRE(rate > 0); }

    /// Counts `bytes`, which were just read. Returns how long to read no more, zero if not at all.
    [[nodiscard]] Duration read(std::size_t bytes, TimePoint now) noexcept {
        fPaidUntil = std::max(fPaidUntil, now - timeOf(kBurst)) + timeOf(bytes);
        return std::max(fPaidUntil - now, Duration::zero());
    }

  private:
    [[nodiscard]] Duration timeOf(std::size_t bytes) const noexcept {
        constexpr std::size_t kNanoseconds = 1'000'000'000;
        return std::chrono::nanoseconds(bytes * kNanoseconds / fRate);
    }

    std::size_t fRate;
    TimePoint fPaidUntil;
};

}  // namespace kirogateway
