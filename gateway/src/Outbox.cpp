#include "Outbox.hpp"

#include <algorithm>
#include <charconv>
#include <utility>

#include "PageMessages.hpp"
#include "TextEncoding.hpp"
#include "WebSocketFrame.hpp"

namespace kirogateway {
namespace {

/// What a batch costs beside its records.
constexpr std::size_t kEntryOverhead = 128;
constexpr std::size_t kMaxBlockChannels = 0xffff;

}  // namespace

Outbox::Outbox(const Limits& limits, std::size_t lanes, bool keeps)
    : fLimits(limits), fKeeps(keeps), fLanes(lanes) {}

// --- Filling -----------------------------------------------------------------------------------

bool Outbox::hasRoom(std::size_t size) const noexcept {
    return size <= fLimits.queueSize && fBytes <= fLimits.queueSize - size;
}

bool Outbox::canHold(std::size_t size) const noexcept {
    return size <= 0xffffffffU && fLimits.queueSize > kEntryOverhead &&
           size <= fLimits.queueSize - kEntryOverhead;
}

bool Outbox::addText(std::size_t lane, std::string_view channel, std::string_view text,
                     bool isBase64, TimePoint now) {
    if (!hasRoom(text.size() + channel.size() + kEntryOverhead)) return false;
    Lane& queue = fLanes[lane];
    Entry& entry = openBatch(queue, channel, now);
    const auto before = entry.records.size();
    if (entry.count > 0) entry.records += kRecordSeparator;
    if (entry.count == 0 || queue.lastChannel != channel) {
        entry.records += channel;
        queue.lastChannel = channel;
    }
    entry.records += kUnitSeparator;
    if (isBase64) entry.records += kUnitSeparator;
    entry.records += text;
    ++entry.count;
    fBytes += entry.records.size() - before;
    return true;
}

Outbox::Entry& Outbox::openBatch(Lane& lane, std::string_view channel, TimePoint now) {
    if (!lane.entries.empty()) {
        Entry& last = lane.entries.back();
        // The empty channel can be named by a frame's first record only.
        const bool canBeNamed = !channel.empty() || lane.lastChannel.empty();
        if (last.block == nullptr && last.records.size() < fLimits.batchSize && canBeNamed) {
            return last;
        }
    }
    Entry entry;
    entry.since = now;
    // Behind others that wait, many small ones must not take more memory than they count.
    if (lane.entries.empty()) entry.records.reserve(std::min(fLastBatch, fLimits.batchSize));
    lane.entries.push_back(std::move(entry));
    fBytes += kEntryOverhead;
    return lane.entries.back();
}

bool Outbox::addBlock(std::size_t lane, std::string_view channel,
                      std::shared_ptr<Transfer> transfer, TimePoint now) {
    const auto size = transfer->bytes().size();
    if (!canHold(size) || !hasRoom(size + kEntryOverhead)) return false;
    const auto number = channelNumber(channel);
    if (number == 0) return false;
    const auto block = std::make_shared<Block>(
        Block{std::move(transfer), number, ++fLastTransfer, 0, size, 0, now});
    fLanes[lane].entries.push_back({now, 0, 1, {}, block});
    fBytes += size + kEntryOverhead;
    return true;
}

std::uint16_t Outbox::channelNumber(std::string_view channel) {
    const auto found = std::ranges::find(fBlockChannels, channel);
    if (found == fBlockChannels.end()) {
        if (fBlockChannels.size() == kMaxBlockChannels) return 0;
        fBlockChannels.emplace_back(channel);
        return static_cast<std::uint16_t>(fBlockChannels.size());
    }
    return static_cast<std::uint16_t>(found - fBlockChannels.begin() + 1);
}

void Outbox::greet(std::string_view hello, std::size_t channelsNamed) {
    fControls.push_front(makeFrame(Opcode::kText, hello));
    fBytes += fControls.front().size();
    fChannelsNamed = channelsNamed;
}

void Outbox::addControl(std::string_view text) { addFrames(makeFrame(Opcode::kText, text)); }

void Outbox::addFrames(std::string frames) {
    fBytes += frames.size();
    fControls.push_back(std::move(frames));
}

// --- Writing -----------------------------------------------------------------------------------

Outbox::Pending Outbox::pending(TimePoint now) {
    if (fWriting.source == Source::kNothing) begin(now);
    if (fWriting.source == Source::kNothing) return {};
    const std::string_view head(fWriting.head.data(), fWriting.headSize);
    if (fWriting.done < head.size()) return {head.substr(fWriting.done), fWriting.body};
    return {std::string_view(), fWriting.body.substr(fWriting.done - head.size())};
}

void Outbox::begin(TimePoint now) {
    if (!fControls.empty()) {
        auto frame = std::move(fControls.front());
        fControls.pop_front();
        fBytes -= frame.size();
        return beginControl(std::move(frame), now);
    }
    if (fChannelsNamed < fBlockChannels.size()) {
        const auto& name = fBlockChannels[fChannelsNamed++];
        return beginControl(makeFrame(Opcode::kText, wire::channelText(fChannelsNamed, name)), now);
    }
    if (fUnwritten < fNumbered.size()) return beginNumbered(now);
    for (std::size_t i = 0; i < fLanes.size(); ++i) {
        const auto lane = (fNextLane + i) % fLanes.size();
        if (!beginFromLane(lane)) continue;
        fNextLane = lane + 1;
        return;
    }
}

bool Outbox::beginFromLane(std::size_t lane) {
    auto& entries = fLanes[lane].entries;
    if (entries.empty()) return false;
    Entry& front = entries.front();
    if (front.block != nullptr) {
        if (!startBlock(lane, front.block)) return false;
        if (front.block->size - front.block->sent > fLimits.pieceSize) {
            fWriting.source = Source::kLane;
            fWriting.lane = lane;
            fWriting.since = front.since;
            beginPiece(*front.block, 0);
            return true;
        }
    }
    front.number = fNext;
    fNext += front.count;
    if (front.block != nullptr) front.block->number = front.number;
    fNumbered.push_back(std::move(front));
    entries.pop_front();
    beginNumbered({});
    return true;
}

bool Outbox::startBlock(std::size_t lane, const std::shared_ptr<Block>& block) {
    if (fUnderWay.contains(block->id)) return true;
    if (fTurn.value_or(lane) != lane) return false;
    if (!mayStart(*block)) {
        fTurn = lane;
        return false;
    }
    fTurn.reset();
    fUnderWay.emplace(block->id, block);
    fBytesUnderWay += block->size;
    return true;
}

bool Outbox::mayStart(const Block& block) const noexcept {
    if (fUnderWay.empty()) return true;
    return fUnderWay.size() < fLimits.blocksUnderWay &&
           fBytesUnderWay + block.size <= fLimits.bytesUnderWay;
}

void Outbox::beginNumbered(TimePoint now) {
    Entry& entry = fNumbered[fUnwritten];
    if (entry.block != nullptr && entry.block->transfer == nullptr) {
        // Left while the page was away: its number must not be missing.
        auto frame = makeFrame(Opcode::kText, wire::withdrawnText(entry.block->id, entry.number));
        fWrittenUpTo = entry.number;
        ++fUnwritten;
        return beginControl(std::move(frame), now);
    }
    fWriting.source = Source::kNumbered;
    fWriting.since = entry.since;
    entry.block != nullptr ? beginPiece(*entry.block, entry.number) : beginBatch(entry);
}

void Outbox::beginControl(std::string frame, TimePoint now) {
    fControl = std::move(frame);
    fWriting.source = Source::kControl;
    fWriting.since = now;
    fWriting.headSize = 0;
    fWriting.body = fControl;
}

void Outbox::beginBatch(const Entry& entry) {
    std::array<char, 24> number{};
    auto* end = std::to_chars(number.data(), number.data() + number.size(), entry.number).ptr;
    *end++ = kRecordSeparator;
    const auto size = static_cast<std::size_t>(end - number.data());
    putFrameHeader(static_cast<unsigned char>(Opcode::kText), size + entry.records.size());
    std::copy_n(number.data(), size, fWriting.head.data() + fWriting.headSize);
    fWriting.headSize += size;
    fWriting.body = entry.records;
    fLastBatch = entry.records.size();
}

void Outbox::beginPiece(Block& block, std::uint64_t number) {
    const auto left = block.size - block.sent;
    fWriting.pieceSize = std::min(left, fLimits.pieceSize);
    fWriting.isLastPiece = fWriting.pieceSize == left;
    putFrameHeader(static_cast<unsigned char>(Opcode::kBinary),
                   wire::BlockHeader::kSize + fWriting.pieceSize);
    const wire::BlockHeader header{fWriting.isLastPiece, block.channel, block.id,
                                   fWriting.isLastPiece ? number : block.size};
    header.write(fWriting.head.data() + fWriting.headSize);
    fWriting.headSize += wire::BlockHeader::kSize;
    fWriting.body = block.transfer->bytes().substr(block.sent, fWriting.pieceSize);
}

void Outbox::putFrameHeader(unsigned char opcode, std::size_t payload) {
    fWriting.headSize =
        writeFrameHeader(fWriting.head.data(), static_cast<Opcode>(opcode), payload);
}

void Outbox::written(std::size_t count) {
    fWriting.done += count;
    if (fWriting.source == Source::kNothing) return;
    if (fWriting.done == fWriting.headSize + fWriting.body.size()) finish();
}

void Outbox::finish() {
    const auto writing = std::exchange(fWriting, {});
    if (writing.source == Source::kLane) {
        fLanes[writing.lane].entries.front().block->sent += writing.pieceSize;
    } else if (writing.source == Source::kNumbered) {
        Entry& entry = fNumbered[fUnwritten];
        if (entry.block != nullptr && !writing.isLastPiece) {
            entry.block->sent += writing.pieceSize;  // a block that is written again
            return;
        }
        if (entry.block != nullptr) entry.block->sent = entry.block->size;
        fWrittenUpTo = entry.number + entry.count - 1;
        ++fUnwritten;
        if (!fKeeps) fAcknowledged = fWrittenUpTo;
        popAcknowledged();
    }
}

// --- What the page says ------------------------------------------------------------------------

void Outbox::acknowledge(std::uint64_t last) {
    // Not further than what was written: the rest cannot be known to the page.
    fAcknowledged = std::max(fAcknowledged, std::min(last, fWrittenUpTo));
    popAcknowledged();
}

void Outbox::popAcknowledged() {
    while (fUnwritten > 0) {
        Entry& front = fNumbered.front();
        if (front.number + front.count - 1 > fAcknowledged) return;
        fBytes -= front.records.size() + kEntryOverhead;
        fNumbered.pop_front();
        --fUnwritten;
    }
}

void Outbox::answer(std::uint64_t transfer, bool hasBlock, LeavingList& leaving) {
    const auto found = transfer <= 0xffffffffU
                           ? fUnderWay.find(static_cast<std::uint32_t>(transfer))
                           : fUnderWay.end();
    if (found == fUnderWay.end()) return;
    const auto block = found->second;
    // An answer to what is still being written can only be a lie.
    if (block->sent < block->size) return;
    leave(block, hasBlock, leaving);
}

void Outbox::leave(const std::shared_ptr<Block>& block, bool hasBlock, LeavingList& leaving) {
    if (block->transfer == nullptr) return;
    leaving.push_back({std::move(block->transfer), hasBlock});
    block->transfer = nullptr;
    fBytes -= block->size;
    if (fUnderWay.erase(block->id) > 0) fBytesUnderWay -= block->size;
}

// --- Losing and regaining the connection -------------------------------------------------------

std::string Outbox::detach() {
    std::string rest;
    if (fWriting.source != Source::kNothing && fWriting.done > 0) {
        for (const auto part : pending({})) rest += part;
    }
    fWriting = {};
    for (const auto& frames : fControls) fBytes -= frames.size();
    fControls.clear();
    for (auto& lane : fLanes) {
        if (!lane.entries.empty() && lane.entries.front().block != nullptr) {
            lane.entries.front().block->sent = 0;
        }
    }
    if (fUnwritten < fNumbered.size() && fNumbered[fUnwritten].block != nullptr) {
        fNumbered[fUnwritten].block->sent = 0;
    }
    return rest;
}

bool Outbox::canResume(std::uint64_t last) const noexcept {
    return fKeeps && last >= fAcknowledged && last <= fWrittenUpTo;
}

void Outbox::resume(std::uint64_t last, const std::vector<std::uint64_t>& refused,
                    LeavingList& leaving) {
    // The answers to blocks that the page counts as handled may be lost; they are taken as given.
    const auto underWay = fUnderWay;
    for (const auto& [id, block] : underWay) {
        if (block->number == 0 || block->number > last) continue;
        const bool isRefused = std::ranges::find(refused, block->number) != refused.end();
        leave(block, !isRefused, leaving);
    }
    acknowledge(last);
    fUnwritten = 0;
    for (const auto& entry : fNumbered) {
        if (entry.block != nullptr) entry.block->sent = 0;
    }
}

void Outbox::dropBlocks(LeavingList& leaving) {
    const auto before = TimePoint::max();
    static_cast<void>(dropBlocksBefore(before, leaving));
}

void Outbox::clear(LeavingList& leaving) {
    dropBlocks(leaving);
    fNumbered.clear();
    fUnwritten = 0;
    for (auto& lane : fLanes) lane.entries.clear();
    fBytes = 0;
}

bool Outbox::dropBlocksBefore(TimePoint since, LeavingList& leaving) {
    bool canGoOn = true;
    const auto isDue = [&](const Entry& entry) {
        if (entry.block == nullptr || entry.block->since >= since) return false;
        if (!isBeingWritten(*entry.block)) return true;
        canGoOn = false;
        return false;
    };
    for (auto& entry : fNumbered) {
        if (isDue(entry)) leave(entry.block, false, leaving);
    }
    fTurn.reset();  // the block that waits for its turn may be among them
    for (auto& lane : fLanes) {
        std::erase_if(lane.entries, [&](const Entry& entry) {
            if (!isDue(entry)) return false;
            if (entry.block->sent > 0) addControl(wire::withdrawnText(entry.block->id, 0));
            leave(entry.block, false, leaving);
            fBytes -= kEntryOverhead;
            return true;
        });
    }
    // Acknowledged, but not answered.
    while (!fUnderWay.empty()) {
        const auto late = std::ranges::find_if(fUnderWay, [&](const auto& item) {
            return item.second->since < since && !isBeingWritten(*item.second);
        });
        if (late == fUnderWay.end()) break;
        leave(std::shared_ptr<Block>(late->second), false, leaving);
    }
    return canGoOn;
}

bool Outbox::isBeingWritten(const Block& block) const noexcept {
    if (block.transfer == nullptr || fWriting.source == Source::kNothing) return false;
    if (fWriting.source == Source::kNumbered) return fNumbered[fUnwritten].block.get() == &block;
    return fWriting.source == Source::kLane &&
           fLanes[fWriting.lane].entries.front().block.get() == &block;
}

// --- State -------------------------------------------------------------------------------------

std::uint64_t Outbox::next() const noexcept {
    return fUnwritten < fNumbered.size() ? fNumbered[fUnwritten].number : fNext;
}

Outbox::TimePoint Outbox::waitingSince(TimePoint now) const noexcept {
    TimePoint since = now;
    if (fWriting.source != Source::kNothing) since = fWriting.since;
    if (fUnwritten < fNumbered.size()) since = std::min(since, fNumbered[fUnwritten].since);
    for (const auto& lane : fLanes) {
        if (!lane.entries.empty()) since = std::min(since, lane.entries.front().since);
    }
    return since;
}

}  // namespace kirogateway
