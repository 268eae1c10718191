#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace kirolink {

/// How much of something a peer gets that asks for it again and again. Not synchronised.
class Allowance {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    static constexpr std::size_t kAtOnce = std::size_t{4} << 20U;
    static constexpr std::size_t kASecond = std::size_t{16} << 20U;

    /// Returns whether so many bytes more may go.
    [[nodiscard]] bool take(std::size_t bytes, TimePoint now) noexcept {
        const auto paidUntil = std::max(fPaidUntil, now - timeOf(kAtOnce)) + timeOf(bytes);
        if (paidUntil > now) return false;
        fPaidUntil = paidUntil;
        return true;
    }

  private:
    [[nodiscard]] static std::chrono::nanoseconds timeOf(std::size_t bytes) noexcept {
        constexpr std::size_t kNanoseconds = 1'000'000'000;
        return std::chrono::nanoseconds(bytes * kNanoseconds / kASecond);
    }

    TimePoint fPaidUntil{};
};

}  // namespace kirolink
