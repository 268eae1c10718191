#include "NumberedLog.hpp"

#include <algorithm>
#include <memory>
#include <utility>

#include "checked/Require.hpp"

namespace kirolink {

void NumberedLog::append(std::string&& frame) {
    const auto size = frame.size();
    auto& entry = fEntries.emplace_back();
    try {
        entry.frame = std::make_shared<const std::string>(std::move(frame));
    } catch (...) {
        fEntries.pop_back();
        throw;
    }
    entry.end = fEnd + size;
    fBytes += size;
    fEnd += size;
}

std::uint64_t NumberedLog::bytesBelow(std::uint64_t number) const noexcept {
    if (number <= fFirst) return fEnd - fBytes;
    return number >= next() ? fEnd : fEntries[number - fFirst - 1].end;
}

Cluster::Bytes NumberedLog::find(std::uint64_t number) const noexcept {
    return number < fFirst || number >= next() ? nullptr : fEntries[number - fFirst].frame;
}

void NumberedLog::sent(TimePoint now) noexcept {
    KIROWEB_REQUIRE(fUnsent < next());
    fEntries[fUnsent - fFirst].sentAt = now;
    ++fUnsent;
}

std::optional<NumberedLog::TimePoint> NumberedLog::sentAt(std::uint64_t number) const noexcept {
    if (number < fFirst || number >= fUnsent) return {};
    return fEntries[number - fFirst].sentAt;
}

void NumberedLog::release(std::uint64_t number) noexcept {
    for (; fFirst < number && !fEntries.empty(); ++fFirst) {
        fBytes -= fEntries.front().frame->size();
        fEntries.pop_front();
    }
    fUnsent = std::max(fUnsent, fFirst);
}

void NumberedLog::reset() noexcept {
    fEntries.clear();
    fFirst = fUnsent = 1;
    fBytes = 0;
    fEnd = 0;
}

std::size_t Resends::asked(const NumberedLog& log, std::uint64_t has, TimePoint now) noexcept {
    if (has > fHas) {
        const auto end = log.bytesBelow(has);
        const auto arrived = std::min(fBytes, end - fHasEnd);
        if (now - fSince < kQuick) fWindow = std::min<std::size_t>(fWindow + arrived, kMost);
        // What was lost and went twice is still counted when all of it has arrived.
        fBytes = has >= fEnd ? 0 : fBytes - arrived;
        fHas = has;
        fHasEnd = end;
        fLost = std::clamp<TimePoint::duration>(2 * (now - fSince), kLost, kMostLost);
        fSince = now;
        // Where something large was lost behind something small there is no room, and nothing on
        // its way.
        return fWindow > fBytes ? fWindow - fBytes : 1;
    }
    if (fBytes > 0) {
        // The same question again: the answer is on its way.
        if (now - fSince < fLost) return 0;
        fLost = std::min<TimePoint::duration>(2 * fLost, kMostLost);
        fWindow = kLeast;
        fBytes = 0;
    }
    fSince = now;
    return fWindow;
}

std::size_t sendAgain(const NumberedLog& log, const frame::Ask& ask, std::uint64_t has,
                      Resends& resends, Cluster& cluster, const std::string& subject,
                      frame::Header header, Resends::TimePoint now) {
    if (ask.ranges.empty()) return 0;  // it has something, and lacks nothing
    const auto room = resends.asked(log, has, now);
    std::size_t count = 0;
    std::size_t gone = 0;
    header.number = 0;
    for (const auto& range : ask.ranges) {
        // A peer may name what is long gone, or never was.
        const auto end = std::min(range.last + 1, log.sentBelow());
        auto number = std::max(range.first, log.first());
        for (; number < end && gone < room; ++number) {
            const auto bytes = log.find(number);
            if (!cluster.publish(subject, bytes)) return count;
            resends.went(number, bytes->size());
            gone += std::max(bytes->size(), Resends::kLeastFrame);
            header.number = number + 1;
            ++count;
        }
    }
    if (count == 0) return 0;
    const auto end = std::make_shared<const std::string>(writeFrame(header, frame::Resent{}));
    static_cast<void>(cluster.publish(subject, end));
    return count;
}

}  // namespace kirolink
