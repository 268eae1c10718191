#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kirogateway {

/// Tells a page that is slow from one that is merely sent much. It looks at what an outbox holds
/// every now and then. Not synchronised.
class Pace {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Bytes; the three counts only grow.
    struct Load {
        std::size_t waiting = 0;     ///< not yet written
        bool isOffered = true;       ///< of that, something could be written now
        std::size_t kept = 0;        ///< written, and not acknowledged or answered
        std::uint64_t added = 0;     ///< ever
        std::uint64_t taken = 0;     ///< ever, by the socket
        std::uint64_t released = 0;  ///< ever: acknowledged, answered or given up
    };

    /// Beyond `share` bytes for longer than `patience` a page has to take what it is sent.
    Pace(std::size_t share, std::chrono::milliseconds patience) noexcept
        : fShare(share), fPatience(patience) {}

    /// A new connection: what was kept meanwhile begins to wait now.
    void restart(TimePoint now) noexcept;
    /// Returns why the page is too slow; null when it is not.
    [[nodiscard]] const char* look(const Load& load, TimePoint now) noexcept;

  private:
    const std::size_t fShare;
    const std::chrono::milliseconds fPatience;
    std::uint64_t fLastTaken = 0;
    TimePoint fTookAt;
    bool fIsBeyond = false;
    TimePoint fBeyondSince;
    Load fThen;  ///< when it was found beyond its share
};

}  // namespace kirogateway
