#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "Frame.hpp"

namespace kirolink {

/// How much may be under way to those who get on best. What is handed to the cluster cannot be
/// taken back, and beats wait behind it: on a slow line it must not be more than that line carries
/// in about a second. Not synchronised.
class SendWindow {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    static constexpr std::uint64_t kLeast = std::uint64_t{256} << 10U;
    static constexpr std::uint64_t kFirst = std::uint64_t{512} << 10U;
    static constexpr std::uint64_t kMost = std::uint64_t{64} << 20U;

    [[nodiscard]] bool mayGo(std::uint64_t underWay, std::size_t size) const noexcept {
        return underWay == 0 || underWay + size <= fSize;
    }
    /// Bytes of one piece of what is large. Beats wait behind each, and nothing is heard meanwhile.
    [[nodiscard]] std::size_t pieceSize() const noexcept {
        return std::min<std::size_t>(fSize / 8, kPieceSize);
    }
    /// So many bytes of those under way have been acknowledged, the last of them sent `age` ago.
    void acknowledged(std::uint64_t bytes, std::chrono::nanoseconds age, std::uint64_t underWay,
                      TimePoint now) noexcept {
        if (age < kQuick) {
            fSize = std::min(fSize + bytes, kMost);
        } else if (age > kSlow && now - fLastCut > kSlow) {
            fSize = std::max(std::min(fSize, underWay) / 2, kLeast);
            fLastCut = now;
        }
    }

  private:
    static constexpr std::chrono::milliseconds kQuick{500};
    static constexpr std::chrono::milliseconds kSlow{1000};

    std::uint64_t fSize = kFirst;
    TimePoint fLastCut{};
};

}  // namespace kirolink
