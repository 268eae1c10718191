#include "DownStream.hpp"

#include <algorithm>
#include <utility>

#include "Pieces.hpp"

namespace kirolink {
namespace {

constexpr std::chrono::milliseconds kTryAgain{2};
constexpr const char* kNoRoom = "no memory for a message";
constexpr const char* kTooLarge = "a text is larger than a gateway takes";
constexpr const char* kTooSlow = "it holds up more than the engine keeps";

}  // namespace

DownStream::DownStream(std::uint64_t epoch, std::size_t most,
                       const std::vector<std::string>& maySubscribe, std::function<void()> wake)
    : fEpoch(epoch),
      fMost(most),
      fWake(std::move(wake)),
      fHeard(maySubscribe.begin(), maySubscribe.end()) {}

// --- What the engine says -----------------------------------------------------------------------

void DownStream::text(std::string_view channel, std::string_view text) noexcept {
    if (!fHasReaders.load(std::memory_order_relaxed)) return;
    const bool isHeard =
        std::ranges::any_of(fHeard, [channel](const auto& list) { return list.matches(channel); });
    if (!isHeard || !canBeNamed(channel)) return;
    bool hasWork = false;
    {
        const annotated::Lock lock(fMutex);
        if (fReaders.empty()) return;
        const auto before = fLog.next();
        const bool wasEmpty = fBatch.isEmpty();
        try {
            const bool isLarge = channel.size() + text.size() > kBatchSize;
            if (!fBatch.fits(channel, text)) closeBatchLocked();
            if (text.size() > GatewayEnd::kLargest) {
                loseAllLocked(kTooLarge);
            } else if (isLarge) {
                appendPiecesLocked(false, channel, text);
            } else if (!fReaders.empty()) {
                fBatch.add(channel, text);
            }
        } catch (...) {
            loseAllLocked(kNoRoom);
        }
        // A batch that was there already has its time.
        hasWork = wasEmpty || fLog.next() != before;
    }
    if (hasWork) fWake();
}

DownStream::Offered DownStream::block(std::string_view channel, std::string_view block,
                                      std::unique_ptr<BlockWait> wait) noexcept {
    const auto offered = take(channel, block, wait);
    if (offered == Offered::kTaken) {
        fWake();
    } else {
        ++(offered == Offered::kNobody ? fBlocksNobody : fBlocksRefused);
        wait->finished(false);
    }
    return offered;
}

DownStream::Offered DownStream::take(std::string_view channel, std::string_view block,
                                     std::unique_ptr<BlockWait>& wait) noexcept {
    if (!fHasReaders.load(std::memory_order_relaxed) || !canBeNamed(channel)) {
        return Offered::kNobody;
    }
    const annotated::Lock lock(fMutex);
    if (fReaders.empty()) return Offered::kNobody;
    if (block.size() > std::min(fMost / 2, GatewayEnd::kLargest)) return Offered::kRefused;
    try {
        Block added{0, nullptr, {}};
        for (const auto& position : fReaders) added.readers.push_back(position.reader);
        fBlocks.reserve(fBlocks.size() + 1);
        closeBatchLocked();
        appendPiecesLocked(true, channel, block);
        added.number = fLog.next() - 1;
        added.wait = std::move(wait);
        fBlocks.push_back(std::move(added));
    } catch (...) {
        // There may be a part of it on the way.
        loseAllLocked(kNoRoom);
        return Offered::kRefused;
    }
    return Offered::kTaken;
}

void DownStream::close() noexcept {
    std::vector<Block> blocks;
    {
        const annotated::Lock lock(fMutex);
        fReaders.clear();
        releaseLocked();
        blocks.swap(fBlocks);
    }
    for (auto& block : blocks) block.wait->finished(false);
}

void DownStream::closeBatchLocked() {
    if (fBatch.isEmpty()) return;
    appendLocked(std::move(fBatch.frame(headerLocked())));
    fBatch.clear();
}

void DownStream::appendPiecesLocked(bool isBlock, std::string_view channel,
                                    std::string_view whole) {
    Pieces pieces(isBlock, channel, whole, fWindow.pieceSize());
    while (const auto piece = pieces.next()) appendLocked(writeFrame(headerLocked(), *piece));
}

void DownStream::appendLocked(std::string&& frame) {
    fLog.append(std::move(frame));
    while (fLog.bytes() > fMost && !fReaders.empty()) {
        const auto slowest = std::ranges::min_element(fReaders, {}, &Position::has);
        fLost.push_back({slowest->reader, kTooSlow});
        fReaders.erase(slowest);
        releaseLocked();
    }
    // The rest of something whose first pieces nobody is left to get.
    if (fReaders.empty()) releaseLocked();
}

void DownStream::releaseLocked() noexcept {
    fHasReaders = !fReaders.empty();
    if (fReaders.empty()) {
        fBatch.clear();
        return fLog.release(fLog.next());
    }
    fLog.release(std::ranges::min_element(fReaders, {}, &Position::has)->has);
}

void DownStream::loseAllLocked(const char* why) noexcept {
    for (const auto& position : fReaders) fLost.push_back({position.reader, why});
    fReaders.clear();
    releaseLocked();
}

std::size_t DownStream::bytes() const noexcept {
    const annotated::Lock lock(fMutex);
    return fLog.bytes() + fBatch.size();
}

// --- Readers ------------------------------------------------------------------------------------

std::uint64_t DownStream::join(Reader reader) {
    const annotated::Lock lock(fMutex);
    fLost.reserve(fLost.size() + fReaders.size() + 1);
    fReaders.push_back({reader, fLog.next()});
    fHasReaders = true;
    return fLog.next();
}

void DownStream::leave(Reader reader) noexcept {
    const annotated::Lock lock(fMutex);
    std::erase_if(fReaders, [reader](const auto& at) { return at.reader == reader; });
    releaseLocked();
}

const DownStream::Position* DownStream::findLocked(Reader reader) const noexcept {
    const auto at = std::ranges::find(fReaders, reader, &Position::reader);
    return at == fReaders.end() ? nullptr : &*at;
}

bool DownStream::acknowledged(Reader reader, std::uint64_t next, TimePoint now) noexcept {
    const annotated::Lock lock(fMutex);
    if (next > fLog.sentBelow()) return false;
    const auto at = std::ranges::find(fReaders, reader, &Position::reader);
    if (at == fReaders.end() || next <= at->has) return true;
    const auto before = foremostLocked();
    at->has = next;
    const auto sentAt = fLog.sentAt(next - 1);
    if (next > before && sentAt) {
        const auto from = fLog.bytesBelow(before);
        fWindow.acknowledged(fLog.bytesBelow(next) - from, now - *sentAt,
                             fLog.bytesBelow(fLog.sentBelow()) - from, now);
    }
    releaseLocked();
    return true;
}

std::uint64_t DownStream::foremostLocked() const noexcept {
    return std::ranges::max_element(fReaders, {}, &Position::has)->has;
}

bool DownStream::isReader(Reader reader) const noexcept {
    const annotated::Lock lock(fMutex);
    return findLocked(reader) != nullptr;
}

bool DownStream::isBehind(Reader reader, TimePoint now,
                          std::chrono::milliseconds time) const noexcept {
    const annotated::Lock lock(fMutex);
    const auto* const position = findLocked(reader);
    if (position == nullptr) return false;
    const auto sentAt = fLog.sentAt(position->has);
    return sentAt && now - *sentAt > time;
}

std::vector<DownStream::Lost> DownStream::takeLost() {
    const annotated::Lock lock(fMutex);
    auto lost = fLost;
    fLost.clear();  // it keeps its room
    return lost;
}

std::vector<DownStream::Block> DownStream::takeBlocks() noexcept {
    const annotated::Lock lock(fMutex);
    return std::exchange(fBlocks, {});
}

std::uint64_t DownStream::sentBelow() const noexcept {
    const annotated::Lock lock(fMutex);
    return fLog.sentBelow();
}

// --- Sending ------------------------------------------------------------------------------------

DownStream::Next DownStream::nextToSend(TimePoint now) {
    const annotated::Lock lock(fMutex);
    if (fReaders.empty()) return {nullptr, 0, TimePoint::max()};
    if (fLog.unsent() == nullptr) {
        if (fBatch.isEmpty()) return {nullptr, 0, TimePoint::max()};
        if (now - fLastSent < kGather) return {nullptr, 0, fLastSent + kGather};
        closeBatchLocked();
        // It may have been too much for the last reader.
        if (fReaders.empty()) return {nullptr, 0, TimePoint::max()};
    }
    const auto number = fLog.sentBelow();
    const auto underWay =
        fLog.bytesBelow(number) - fLog.bytesBelow(std::min(number, foremostLocked()));
    auto frame = fLog.unsent();
    // An acknowledgement leads back to here.
    if (!fWindow.mayGo(underWay, frame->size())) return {nullptr, 0, TimePoint::max()};
    return {std::move(frame), number, {}};
}

DownStream::TimePoint DownStream::send(Cluster& cluster, const std::string& subject,
                                       TimePoint now) {
    for (;;) {
        const auto [frame, number, again] = nextToSend(now);
        if (frame == nullptr) return again;
        if (!cluster.publish(subject, frame)) return now + kTryAgain;
        fLastSent = now;
        fFramesSent += 1;
        fBytesSent += frame->size();
        const annotated::Lock lock(fMutex);
        // It may have been let go of meanwhile, with its readers.
        if (fLog.sentBelow() == number && fLog.find(number) != nullptr) fLog.sent(now);
    }
}

std::size_t DownStream::sendAgain(const frame::Header& header, const frame::Ask& ask,
                                  Resends& resends, Cluster& cluster, const std::string& subject,
                                  TimePoint now) {
    const annotated::Lock lock(fMutex);
    return kirolink::sendAgain(fLog, ask, header.number, resends, cluster, subject, header, now);
}

}  // namespace kirolink
