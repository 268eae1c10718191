#include "UpStream.hpp"

#include <stdexcept>
#include <utility>

#include "Pieces.hpp"

namespace kirolink {
namespace {

constexpr std::size_t kFramePlace = 128;  // that a frame takes besides, about

}  // namespace

void UpStream::open(std::uint64_t epoch, std::uint64_t incarnation) noexcept {
    const annotated::Lock lock(fMutex);
    fIsOpen = fCluster != nullptr;
    fIsBroken = false;
    fEpoch = epoch;
    fIncarnation = incarnation;
    fLog.reset();
    fResends = {};
    if (fIsOpen && fPages > 0) sendSurelyLocked(frame::Pages{fPages});
}

void UpStream::close() noexcept {
    const annotated::Lock lock(fMutex);
    fIsOpen = false;
    fLog.reset();
}

void UpStream::detach() noexcept {
    close();
    const annotated::Lock lock(fMutex);
    fCluster = nullptr;
}

// --- What is said -------------------------------------------------------------------------------

void UpStream::publish(std::string_view channel, std::string_view text) {
    const annotated::Lock lock(fMutex);
    if (!fIsOpen || !canBeNamed(channel)) return;
    if (channel.size() + text.size() > kBatchSize) {
        return sendLocked(piecesLocked(false, channel, text), kMostOfPages);
    }
    BatchWriter batch;
    batch.add(channel, text);
    std::vector<std::string> frames;
    frames.push_back(std::move(batch.frame(headerLocked())));
    sendLocked(std::move(frames), kMostOfPages);
}

void UpStream::sendBlock(std::string_view channel, std::string_view block) {
    const annotated::Lock lock(fMutex);
    if (!fIsOpen || !canBeNamed(channel)) return;
    sendLocked(piecesLocked(true, channel, block), kMostOfPages);
}

void UpStream::announce(GatewayEnd::ViewKind kind, std::string_view client, std::uint64_t view) {
    const annotated::Lock lock(fMutex);
    if (fIsOpen) sendLocked(frame::Announce{kind, view, client.substr(0, kMaxClient)});
}

void UpStream::pages(std::size_t count) noexcept {
    const annotated::Lock lock(fMutex);
    if (std::exchange(fPages, count) != count) sendSurelyLocked(frame::Pages{count});
}

void UpStream::answer(std::uint64_t incarnation, std::uint64_t block,
                      BlockOutcome outcome) noexcept {
    const annotated::Lock lock(fMutex);
    if (incarnation == fIncarnation) sendSurelyLocked(frame::Outcome{block, outcome});
}

bool UpStream::hasRoomForPages() const noexcept {
    const annotated::Lock lock(fMutex);
    return waitingLocked() < kMostOfPages / 2;
}

std::size_t UpStream::waitingLocked() const noexcept {
    return fLog.bytes() + (fLog.next() - fLog.first()) * kFramePlace;
}

std::vector<std::string> UpStream::piecesLocked(bool isBlock, std::string_view channel,
                                                std::string_view whole) const {
    std::vector<std::string> frames;
    Pieces pieces(isBlock, channel, whole, kBatchSize);
    while (const auto piece = pieces.next()) {
        frames.push_back(writeFrame(headerLocked(frames.size()), *piece));
    }
    return frames;
}

void UpStream::sendLocked(const frame::Body& body) {
    std::vector<std::string> frames;
    frames.push_back(writeFrame(headerLocked(), body));
    sendLocked(std::move(frames), kMost);
}

void UpStream::sendSurelyLocked(const frame::Body& body) noexcept {
    if (!fIsOpen) return;
    try {
        sendLocked(body);
    } catch (...) {
        fIsBroken = true;
    }
}

void UpStream::sendLocked(std::vector<std::string> frames, std::size_t most) {
    auto size = waitingLocked();
    for (const auto& frame : frames) size += frame.size() + kFramePlace;
    if (size > most) throw std::length_error("too much waits for the engine");
    const auto before = fLog.next();
    try {
        for (auto& frame : frames) fLog.append(std::move(frame));
    } catch (...) {
        // A part of something that is not followed by the rest would be the end of the stream.
        fIsBroken = fIsBroken || fLog.next() != before;
        throw;
    }
    flushLocked();
}

// --- Sending ------------------------------------------------------------------------------------

void UpStream::flushLocked() noexcept {
    while (fIsOpen) {
        const auto frame = fLog.unsent();
        if (frame == nullptr || !fCluster->publish(fSubject, frame)) return;
        fLog.sent({});
        ++fStatistics.frames;
        fStatistics.bytes += frame->size();
    }
}

void UpStream::retry() noexcept {
    const annotated::Lock lock(fMutex);
    flushLocked();
}

std::uint64_t UpStream::sentBelow() const noexcept {
    const annotated::Lock lock(fMutex);
    return fLog.sentBelow();
}

bool UpStream::acknowledged(std::uint64_t next) noexcept {
    const annotated::Lock lock(fMutex);
    if (next > fLog.sentBelow()) return false;
    fLog.release(next);
    return true;
}

void UpStream::sendAgain(const frame::Ask& ask, NumberedLog::TimePoint now) {
    const annotated::Lock lock(fMutex);
    if (!fIsOpen) return;
    static_cast<void>(kirolink::sendAgain(fLog, ask, fLog.first(), fResends, *fCluster, fSubject,
                                          {fEpoch, fIncarnation, 0}, now));
}

bool UpStream::isBroken() const noexcept {
    const annotated::Lock lock(fMutex);
    return fIsBroken;
}

UpStream::Statistics UpStream::statistics() const noexcept {
    const annotated::Lock lock(fMutex);
    return fStatistics;
}

std::size_t UpStream::waiting() const noexcept {
    const annotated::Lock lock(fMutex);
    return fLog.bytes();
}

}  // namespace kirolink
