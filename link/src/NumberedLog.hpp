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
    /// Takes a frame, which has the number `next()`. Throws std::bad_alloc; it is not there then.
    void append(std::string frame);
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

/// What has been sent again to one peer of what it asked for: so much at a time that the line stays
/// usable, however often it asks. Not synchronised.
class Resends {
  public:
    using TimePoint = NumberedLog::TimePoint;
    static constexpr std::size_t kMostUnderWay = std::size_t{4} << 20U;
    /// What has not led to an acknowledgement by then is taken for lost.
    static constexpr std::chrono::seconds kLost{2};

    /// To be called for each question; `has`: everything below it is there of what `log` has.
    void asked(const NumberedLog& log, std::uint64_t has, TimePoint now) noexcept;
    /// Whether a further frame may go.
    [[nodiscard]] bool mayGo() const noexcept { return fBytes < kMostUnderWay; }
    void went(std::uint64_t number, std::size_t bytes) noexcept {
        fBytes += bytes;
        fEnd = std::max(fEnd, number + 1);
    }

  private:
    std::uint64_t fBytes = 0;   ///< that are under way, as far as is known
    std::uint64_t fEnd = 0;     ///< what has gone is below
    std::uint64_t fHas = 0;     ///< as it was said last
    std::uint64_t fHasEnd = 0;  ///< bytes of all frames below that one
    TimePoint fSince{};
};

/// Sends what was asked for, as far as `resends` lets it: frames first and `frame::Resent` behind
/// them. `header` is that of the answer. Returns how many frames have gone. Throws std::bad_alloc.
std::size_t sendAgain(const NumberedLog& log, const frame::Ask& ask, Resends& resends,
                      Cluster& cluster, const std::string& subject, frame::Header header);

}  // namespace kirolink
