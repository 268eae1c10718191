#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "Cluster.hpp"
#include "Frame.hpp"

namespace kirolink {

/// The sending half of a numbered stream: frames, kept from when they are made until whoever is to
/// have them has them. Not synchronised.
class NumberedLog {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// The number of the oldest frame that is kept, or of the next one.
    [[nodiscard]] std::uint64_t first() const noexcept { return fFirst; }
    /// The number that the next frame gets; the very first one gets 1.
    [[nodiscard]] std::uint64_t next() const noexcept { return fFirst + fEntries.size(); }
    /// Of all that is kept.
    [[nodiscard]] std::size_t bytes() const noexcept { return fBytes; }
    /// Of all frames below `number`, kept or not.
    [[nodiscard]] std::uint64_t bytesBelow(std::uint64_t number) const noexcept;
    /// Takes a frame, which has the number `next()`. Throws std::bad_alloc; it is not there then,
    /// and `frame` is as it was.
    void append(std::string&& frame);
    /// The frame of this number; null when it is not kept.
    [[nodiscard]] Cluster::Bytes find(std::uint64_t number) const noexcept;
    /// The oldest frame that was not sent; null when all were.
    [[nodiscard]] Cluster::Bytes unsent() const noexcept { return find(fUnsent); }
    /// It has been sent. REQUIRES: unsent() is not null.
    void sent(TimePoint now) noexcept;
    /// The number of the oldest frame that was not sent.
    [[nodiscard]] std::uint64_t sentBelow() const noexcept { return fUnsent; }
    /// When the frame was sent first; empty: it was not, or is not kept.
    [[nodiscard]] std::optional<TimePoint> sentAt(std::uint64_t number) const noexcept;
    /// Lets go of everything below `number`. What was not sent then, never is.
    void release(std::uint64_t number) noexcept;
    /// Forgets everything: numbers begin anew.
    void reset() noexcept;

  private:
    struct Entry {
        Cluster::Bytes frame;
        std::uint64_t end = 0;  ///< bytes of all frames up to this one
        TimePoint sentAt{};
    };

    std::deque<Entry> fEntries;
    std::uint64_t fFirst = 1;   ///< the number of the first entry
    std::uint64_t fUnsent = 1;  ///< the number of the oldest one that was not sent
    std::size_t fBytes = 0;
    std::uint64_t fEnd = 0;  ///< bytes of all frames there have been
};

/// What has been sent again to one peer of what it asked for: little at first, and more as it
/// arrives, so that the line stays usable for others and for what is new. Not synchronised.
class Resends {
  public:
    using TimePoint = NumberedLog::TimePoint;
    /// Under way at a time: at first, and again after a loss; then up to twice as much with each
    /// round trip that is quick. Beats wait behind it.
    static constexpr std::size_t kLeast = std::size_t{64} << 10U;
    static constexpr std::size_t kMost = std::size_t{4} << 20U;
    static constexpr std::chrono::milliseconds kQuick{500};
    /// What a frame counts in an answer at least: small ones cost the cluster's nodes as much.
    static constexpr std::size_t kLeastFrame = 128;
    /// What has brought nothing further by then, or in twice the time that the last progress took,
    /// is taken for lost; then twice as long each time.
    static constexpr std::chrono::milliseconds kLost{250};
    static constexpr std::chrono::milliseconds kMostLost{1000};

    /// To be called for each question; `has`: everything below it is there of what `log` has.
    /// Returns how many bytes may go in answer to it.
    [[nodiscard]] std::size_t asked(const NumberedLog& log, std::uint64_t has,
                                    TimePoint now) noexcept;
    void went(std::uint64_t number, std::size_t bytes) noexcept {
        fBytes += bytes;
        fEnd = std::max(fEnd, number + 1);
    }

  private:
    std::size_t fWindow = kLeast;
    std::uint64_t fBytes = 0;   ///< that are under way, as far as is known
    std::uint64_t fEnd = 0;     ///< what has gone is below
    std::uint64_t fHas = 0;     ///< as it was said last
    std::uint64_t fHasEnd = 0;  ///< bytes of all frames below that one
    TimePoint fSince{};
    TimePoint::duration fLost = kLost;
};

/// Answers a question of somebody's who has everything below `has`, as far as `resends` lets it:
/// frames first and `frame::Resent` behind them. `header` is that of the answer. Returns how many
/// frames have gone. Throws std::bad_alloc.
std::size_t sendAgain(const NumberedLog& log, const frame::Ask& ask, std::uint64_t has,
                      Resends& resends, Cluster& cluster, const std::string& subject,
                      frame::Header header, Resends::TimePoint now);

}  // namespace kirolink
