#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>

namespace kirolink {

/// How much another machine's wall clock is ahead, from messages and their answers. The shortest of
/// the last round trips counts: what is late was late on one of its ways only. Not synchronised.
class Clocks {
  public:
    using Time = std::chrono::microseconds;

    /// A message left at `sent` and came there at `receivedThere`; the answer left there at
    /// `sentThere` and has come at `received`, each by the clock of its place.
    void add(Time sent, Time receivedThere, Time sentThere, Time received) noexcept {
        const auto thereFor = sentThere - receivedThere;
        const auto roundTrip = (received - sent) - thereFor;
        // A clock that was set meanwhile says nothing, and the other one may say anything.
        if (thereFor < Time::zero() || roundTrip < Time::zero() || roundTrip > kLongest) return;
        fLast = roundTrip;
        fSamples[fCount++ % kSamples] = {roundTrip,
                                         ((receivedThere - sent) + (sentThere - received)) / 2};
    }
    [[nodiscard]] Time offset() const noexcept { return best().offset; }
    /// The offset is right up to this; 0 as long as nothing is known of it.
    [[nodiscard]] Time uncertainty() const noexcept {
        return fCount == 0 ? Time(0) : (best().roundTrip + Time(2)) / 2;
    }
    [[nodiscard]] Time lastRoundTrip() const noexcept { return fLast; }

  private:
    static constexpr std::size_t kSamples = 16;
    static constexpr std::chrono::minutes kLongest{1};
    struct Sample {
        Time roundTrip{0};
        Time offset{0};
    };
    [[nodiscard]] Sample best() const noexcept {
        const auto count = std::min(fCount, kSamples);
        const auto* const end = fSamples.data() + count;
        const auto* const at =
            std::ranges::min_element(fSamples.data(), end, {}, &Sample::roundTrip);
        return at == end ? Sample() : *at;
    }

    std::array<Sample, kSamples> fSamples;
    std::size_t fCount = 0;
    Time fLast{0};
};

}  // namespace kirolink
