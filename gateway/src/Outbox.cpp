#include "Outbox.hpp"

#include <algorithm>
#include <charconv>
#include <utility>

#include "PageMessages.hpp"
#include "TextEncoding.hpp"
#include "WebSocketFrame.hpp"
#include "checked/Require.hpp"

namespace kirogateway {
namespace {

/// What an entry costs beside its records: its node, and a block's.
constexpr std::size_t kEntryOverhead = 192;
/// What a control frame costs beside its bytes.
constexpr std::size_t kControlOverhead = 96;
/// An engine that makes up channels must not fill memory; each is looked for among all.
constexpr std::size_t kMaxBlockChannels = 1024;
constexpr std::size_t kMaxBlock = 0xffffffff;

}  // namespace

Outbox::Outbox(const Limits& limits, std::size_t lanes, bool keeps, std::shared_ptr<Budget> budget)
    : fLimits(limits), fBudget(std::move(budget)), fKeeps(keeps), fLanes(lanes) {}

Outbox::~Outbox() {
    fBudget->give(fOwnBytes);
    if (fLost != nullptr) fLost->give(fBytes);
}

// --- Accounts ----------------------------------------------------------------------------------

std::size_t Outbox::ownSize(const Entry& entry) noexcept {
    return kEntryOverhead + entry.records.capacity();
}

std::size_t Outbox::sharedSize(const Entry& entry) noexcept {
    return entry.shared != nullptr ? entry.shared->text->size() : 0;
}

std::size_t Outbox::payloadSize(const Entry& entry) noexcept {
    return entry.records.size() + sharedSize(entry);
}

std::uint64_t Outbox::lastNumber(const Entry& entry) noexcept {
    return entry.number + entry.count - 1;
}

std::size_t Outbox::controlSize(const std::string& frames) noexcept {
    return kControlOverhead + frames.size();
}

Outbox::Added Outbox::hold(std::size_t own, std::size_t shared, bool isRoomMade) noexcept {
    if (isRoomMade) {
        fBudget->add(own);
    } else if (!fBudget->take(own)) {
        return Added::kNoMemory;
    }
    if (fLost != nullptr && !fLost->take(own + shared)) {
        fBudget->give(own);
        return Added::kNoLostRoom;
    }
    fOwnBytes += own;
    fBytes += own + shared;
    return Added::kYes;
}

void Outbox::holdAnyway(std::size_t own) noexcept {
    KIROWEB_REQUIRE(fLost == nullptr);
    fBudget->add(own);
    fOwnBytes += own;
    fBytes += own;
}

void Outbox::letGo(std::size_t own, std::size_t shared) noexcept {
    fBudget->give(own);
    if (fLost != nullptr) fLost->give(own + shared);
    fOwnBytes -= own;
    fBytes -= own + shared;
}

void Outbox::countAsLost(std::shared_ptr<Budget> lost) noexcept {
    fLost = std::move(lost);
    fLost->add(fBytes);
}

void Outbox::erase(Entries& from, Entries::iterator entry) noexcept {
    if (entry->block != nullptr) entry->block->entry = nullptr;
    fReleased += payloadSize(*entry);
    letGo(ownSize(*entry), sharedSize(*entry));
    from.erase(entry);
}

// --- Filling -----------------------------------------------------------------------------------

Outbox::Added Outbox::addText(const Text& text, bool isRoomMade) {
    if (text.shared != nullptr) return addShared(text, isRoomMade);
    Lane& lane = fLanes[text.lane];
    const auto size = text.channel.size() + text.text.size() + 3;
    if (canTake(lane, text.channel)) {
        const auto added = grow(lane.entries.back(), size, isRoomMade);
        if (added == Added::kYes) append(lane, lane.entries.back(), text);
        return added;
    }
    Entries fresh(1);
    fresh.front().records.reserve(size + expectedMore(lane));
    std::string name(text.channel);
    Entry& entry = fresh.front();
    const auto added = addEntry(lane, std::move(fresh), 0, isRoomMade);
    if (added != Added::kYes) return added;
    lane.lastChannel.swap(name);
    append(lane, entry, text);
    return added;
}

/// Most likely the next batch is as large as the last one, and behind a full one that waits it is
/// full as well. The text that fills a batch may go beyond its size.
std::size_t Outbox::expectedMore(const Lane& lane) const noexcept {
    if (lane.entries.empty()) return std::min(fLastBatch, fLimits.batchSize);
    const bool isBehindFull = lane.entries.back().records.size() >= fLimits.batchSize;
    return isBehindFull ? fLimits.batchSize : 0;
}

bool Outbox::canTake(const Lane& lane, std::string_view channel) const noexcept {
    if (lane.entries.empty()) return false;
    const Entry& last = lane.entries.back();
    // The empty channel can be named by a frame's first record only.
    const bool canBeNamed = !channel.empty() || lane.lastChannel.empty();
    return !last.isBlock && last.shared == nullptr && canBeNamed &&
           last.records.size() < fLimits.batchSize;
}

Outbox::Added Outbox::grow(Entry& entry, std::size_t more, bool isRoomMade) {
    const auto capacity = entry.records.capacity();
    const auto needed = entry.records.size() + more;
    if (needed <= capacity) return Added::kYes;
    const auto target = std::max(needed, 2 * capacity);
    const auto added = hold(target - capacity, 0, isRoomMade);
    if (added != Added::kYes) return added;
    try {
        entry.records.reserve(target);
    } catch (...) {
        letGo(target - capacity, 0);
        throw;
    }
    return Added::kYes;
}

void Outbox::append(Lane& lane, Entry& entry, const Text& text) {
    const bool isNamed = entry.count == 0 || lane.lastChannel != text.channel;
    if (isNamed) lane.lastChannel = text.channel;  // may fail, and before anything else
    const auto before = entry.records.size();
    if (entry.count > 0) entry.records += kRecordSeparator;
    if (isNamed) entry.records += text.channel;
    entry.records += kUnitSeparator;
    if (text.isBase64) entry.records += kUnitSeparator;
    entry.records += text.text;
    ++entry.count;
    fAdded += entry.records.size() - before;
}

Outbox::Added Outbox::addShared(const Text& text, bool isRoomMade) {
    Entries fresh(1);
    Entry& entry = fresh.front();
    entry.count = 1;
    entry.records.reserve(text.channel.size() + 2);
    entry.records += text.channel;
    entry.records += kUnitSeparator;
    if (text.isBase64) entry.records += kUnitSeparator;
    entry.shared = text.shared;
    const auto added = addEntry(fLanes[text.lane], std::move(fresh), text.text.size(), isRoomMade);
    if (added == Added::kYes) fAdded += payloadSize(entry);
    return added;
}

Outbox::Added Outbox::addEntry(Lane& lane, Entries&& entry, std::size_t shared,
                               bool isRoomMade) noexcept {
    const auto added = hold(ownSize(entry.front()), shared, isRoomMade);
    if (added == Added::kYes) lane.entries.splice(lane.entries.end(), entry);
    return added;
}

Outbox::Added Outbox::addBlock(std::size_t lane, std::string_view channel,
                               const std::shared_ptr<Transfer>& transfer, TimePoint now,
                               bool isRoomMade) {
    const auto size = transfer->bytes().size();
    const auto number = size <= kMaxBlock ? channelNumber(channel) : std::uint16_t{0};
    if (number == 0) return Added::kNever;
    PageBlocks block(1);
    Entries fresh(1);
    Entry& entry = fresh.front();
    block.front() = {transfer, number, fLastTransfer + 1, 0, size, 0, now, false, &entry, false};
    entry.count = 1;
    entry.isBlock = true;
    entry.transfer = block.front().id;
    entry.block = &block.front();
    entry.where = block.begin();
    const auto added = addEntry(fLanes[lane], std::move(fresh), 0, isRoomMade);
    if (added != Added::kYes) return added;
    if (const auto held = hold(0, size, isRoomMade); held != Added::kYes) {
        erase(fLanes[lane].entries, std::prev(fLanes[lane].entries.end()));
        return held;
    }
    ++fLastTransfer;
    fAdded += size;
    fWaiting.splice(fWaiting.end(), block);
    return added;
}

std::uint16_t Outbox::channelNumber(std::string_view channel) {
    const auto found = std::ranges::find(fBlockChannels, channel, &BlockChannel::name);
    if (found != fBlockChannels.end()) {
        return static_cast<std::uint16_t>(found - fBlockChannels.begin() + 1);
    }
    const auto number = fBlockChannels.size() + 1;
    if (number > kMaxBlockChannels) return 0;
    fBlockChannels.push_back(
        {std::string(channel), makeFrame(Opcode::kText, wire::channelText(number, channel))});
    return static_cast<std::uint16_t>(number);
}

void Outbox::addControl(std::string_view text) { addFrames(makeFrame(Opcode::kText, text)); }

void Outbox::addFrames(std::string frames) {
    fControls.push_back(std::move(frames));
    const auto& added = fControls.back();
    holdAnyway(controlSize(added));
    fControlBytes += controlSize(added);
    fAdded += added.size();
}

// --- Writing -----------------------------------------------------------------------------------

Outbox::Pending Outbox::pending() noexcept {
    if (fWriting.source == Source::kNothing) beginFrame();
    return unwritten();
}

Outbox::Pending Outbox::unwritten() const noexcept {
    if (fWriting.source == Source::kNothing) return {};
    Pending all{{{fWriting.head.data(), fWriting.headSize}, fWriting.prefix, fWriting.body}};
    auto done = fWriting.done;
    for (auto& stretch : all) {
        const auto part = std::min(done, stretch.size());
        stretch.remove_prefix(part);
        done -= part;
    }
    return all;
}

void Outbox::beginFrame() noexcept {
    if (!fControls.empty()) {
        fWriting.source = Source::kControl;
        fWriting.body = fControls.front();
    } else if (fChannelsNamed < fBlockChannels.size()) {
        fWriting.source = Source::kNamed;
        fWriting.body = fBlockChannels[fChannelsNamed].frame;
    } else if (fUnwritten != fNumbered.end()) {
        beginNumbered();
    } else {
        for (std::size_t i = 0; i < fLanes.size(); ++i) {
            const auto lane = (fNextLane + i) % fLanes.size();
            if (!beginFromLane(lane)) continue;
            fNextLane = lane + 1;
            return;
        }
    }
}

bool Outbox::beginFromLane(std::size_t lane) noexcept {
    auto& entries = fLanes[lane].entries;
    const auto isNothing = [](const Entry& entry) {
        return entry.isBlock && entry.block == nullptr && !entry.isBegun;
    };
    while (!entries.empty() && isNothing(entries.front())) erase(entries, entries.begin());
    if (entries.empty()) return false;
    Entry& front = entries.front();
    if (front.isBlock) {
        const bool isLeft = front.block == nullptr;
        if (!isLeft && !startBlock(lane, *front.block)) return false;
        if (isLeft || front.block->size - front.block->sent > fLimits.pieceSize) {
            fWriting.source = Source::kLane;
            fWriting.lane = lane;
            isLeft ? beginWithdrawn(front) : beginPiece(*front.block, 0);
            return true;
        }
    }
    front.number = fNext;
    fNext += front.count;
    if (front.isBlock) front.block->number = front.number;
    fNumbered.splice(fNumbered.end(), entries, entries.begin());
    fUnwritten = std::prev(fNumbered.end());
    beginNumbered();
    return true;
}

bool Outbox::startBlock(std::size_t lane, PageBlock& block) noexcept {
    if (block.isUnderWay) return true;
    if (fTurn.value_or(lane) != lane) return false;
    if (!mayStart(block)) {
        fTurn = lane;
        return false;
    }
    fTurn.reset();
    fUnderWay.splice(fUnderWay.end(), fWaiting, block.entry->where);
    block.isUnderWay = true;
    fBytesUnderWay += block.size;
    return true;
}

bool Outbox::mayStart(const PageBlock& block) const noexcept {
    if (fUnderWay.empty()) return true;
    return fUnderWay.size() < fLimits.blocksUnderWay &&
           fBytesUnderWay + block.size <= fLimits.bytesUnderWay;
}

void Outbox::beginNumbered() noexcept {
    const Entry& entry = *fUnwritten;
    fWriting.source = Source::kNumbered;
    if (!entry.isBlock) {
        beginBatch(entry);
    } else if (entry.block != nullptr) {
        beginPiece(*entry.block, entry.number);
    } else {
        beginWithdrawn(entry);  // left while the page was away: its number must not be missing
    }
}

void Outbox::beginBatch(const Entry& entry) noexcept {
    std::array<char, 24> number{};
    auto* end = std::to_chars(number.data(), number.data() + number.size(), entry.number).ptr;
    *end++ = kRecordSeparator;
    const auto size = static_cast<std::size_t>(end - number.data());
    putFrameHeader(true, size + payloadSize(entry));
    putHead({number.data(), size});
    fWriting.prefix = entry.records;
    if (entry.shared != nullptr) {
        fWriting.body = *entry.shared->text;
    } else {
        fLastBatch = entry.records.size();
    }
}

void Outbox::beginPiece(const PageBlock& block, std::uint64_t number) noexcept {
    const auto left = block.size - block.sent;
    fWriting.pieceSize = std::min(left, fLimits.pieceSize);
    fWriting.isLastPiece = fWriting.pieceSize == left;
    putFrameHeader(false, wire::BlockHeader::kSize + fWriting.pieceSize);
    const wire::BlockHeader header{fWriting.isLastPiece, block.channel, block.id,
                                   fWriting.isLastPiece ? number : block.size};
    header.write(fWriting.head.data() + fWriting.headSize);
    fWriting.headSize += wire::BlockHeader::kSize;
    fWriting.body = block.transfer->bytes().substr(block.sent, fWriting.pieceSize);
}

void Outbox::beginWithdrawn(const Entry& entry) noexcept {
    const wire::WithdrawnText text(entry.transfer, entry.number);
    putFrameHeader(true, text.view().size());
    putHead(text.view());
}

void Outbox::putHead(std::string_view bytes) noexcept {
    KIROWEB_REQUIRE(fWriting.headSize + bytes.size() <= fWriting.head.size());
    std::ranges::copy(bytes, fWriting.head.data() + fWriting.headSize);
    fWriting.headSize += bytes.size();
}

void Outbox::putFrameHeader(bool isText, std::size_t payload) noexcept {
    const auto opcode = isText ? Opcode::kText : Opcode::kBinary;
    fWriting.headSize = writeFrameHeader(fWriting.head.data(), opcode, payload);
}

void Outbox::written(std::size_t count) noexcept {
    if (fWriting.source == Source::kNothing) return;
    fWriting.done += count;
    fTaken += count;
    const auto size = fWriting.headSize + fWriting.prefix.size() + fWriting.body.size();
    KIROWEB_REQUIRE(fWriting.done <= size);
    if (fWriting.done == size) finish();
}

void Outbox::finish() noexcept {
    const auto writing = std::exchange(fWriting, {});
    if (writing.source == Source::kControl) {
        const auto size = controlSize(fControls.front());
        fReleased += fControls.front().size();
        fControls.pop_front();
        fControlBytes -= size;
        letGo(size, 0);
    } else if (writing.source == Source::kNamed) {
        ++fChannelsNamed;
    } else if (writing.source == Source::kLane) {
        auto& entries = fLanes[writing.lane].entries;
        Entry& front = entries.front();
        if (writing.pieceSize == 0) {  // it was withdrawn
            erase(entries, entries.begin());
        } else {
            front.isBegun = true;
            if (front.block != nullptr) front.block->sent += writing.pieceSize;
        }
    } else if (writing.source == Source::kNumbered) {
        finishNumbered(writing);
    }
}

void Outbox::finishNumbered(const Writing& writing) noexcept {
    Entry& entry = *fUnwritten;
    if (entry.block != nullptr) {
        entry.block->sent += writing.pieceSize;
        if (!writing.isLastPiece) return;  // a block that is written again
        fKept += entry.block->size;
    }
    fKept += ownSize(entry) + sharedSize(entry);
    // What is written again, after a return, is not all that the page has been sent.
    fWrittenUpTo = std::max(fWrittenUpTo, lastNumber(entry));
    ++fUnwritten;
    if (!fKeeps) fAcknowledged = fWrittenUpTo;
    popAcknowledged();
}

// --- What the page says ------------------------------------------------------------------------

void Outbox::acknowledge(std::uint64_t last) noexcept {
    if (last > fWrittenUpTo) return;  // the page cannot know it
    fAcknowledged = std::max(fAcknowledged, last);
    popAcknowledged();
}

void Outbox::popAcknowledged() noexcept {
    while (!fNumbered.empty() && fUnwritten != fNumbered.begin()) {
        const Entry& front = fNumbered.front();
        if (lastNumber(front) > fAcknowledged) return;
        fKept -= ownSize(front) + sharedSize(front);
        erase(fNumbered, fNumbered.begin());
    }
}

void Outbox::answer(std::uint64_t transfer, bool hasBlock, PageBlocks& left) noexcept {
    const auto found = std::ranges::find(fUnderWay, transfer, &PageBlock::id);
    // An answer to what is still being written can only be a lie.
    if (found == fUnderWay.end() || found->sent < found->size) return;
    leave(fUnderWay, found, hasBlock, left);
}

void Outbox::unsend(PageBlock& block) noexcept {
    if (block.sent == block.size) fKept -= block.size;
    block.sent = 0;
}

void Outbox::leave(PageBlocks& from, PageBlocks::iterator block, bool hasBlock,
                   PageBlocks& left) noexcept {
    if (block->entry != nullptr) block->entry->block = nullptr;
    const auto size = block->size;
    unsend(*block);
    if (block->isUnderWay) fBytesUnderWay -= size;
    block->isDelivered = hasBlock;
    left.splice(left.end(), from, block);
    fReleased += size;
    letGo(0, size);
}

// --- Losing and regaining the connection -------------------------------------------------------

std::string Outbox::restOfFrame() const {
    std::string rest;
    if (fWriting.done == 0) return rest;
    for (const auto stretch : unwritten()) rest += stretch;
    return rest;
}

void Outbox::detach() noexcept {
    fWriting = {};
    letGo(fControlBytes, 0);
    fControlBytes = 0;
    for (const auto& control : fControls) fReleased += control.size();
    fControls.clear();
    for (auto& lane : fLanes) {
        if (lane.entries.empty()) continue;
        Entry& front = lane.entries.front();
        front.isBegun = false;
        if (front.block != nullptr) unsend(*front.block);
    }
    if (fUnwritten != fNumbered.end() && fUnwritten->block != nullptr) unsend(*fUnwritten->block);
}

bool Outbox::canResume(std::uint64_t last) const noexcept {
    return fKeeps && last >= fAcknowledged && last <= fWrittenUpTo;
}

void Outbox::begin(std::list<std::string>&& hello, std::size_t channelsNamed, bool keeps) noexcept {
    KIROWEB_REQUIRE(fWriting.source == Source::kNothing && hello.size() == 1);
    if (fLost != nullptr) fLost->give(fBytes);
    fLost = nullptr;
    const auto size = controlSize(hello.front());
    holdAnyway(size);
    fControlBytes += size;
    fAdded += hello.front().size();
    fControls.splice(fControls.begin(), hello);
    fChannelsNamed = channelsNamed;
    fKeeps = keeps;
}

void Outbox::resume(std::uint64_t last, const std::vector<std::uint64_t>& refused,
                    PageBlocks& left) noexcept {
    KIROWEB_REQUIRE(canResume(last) && fWriting.source == Source::kNothing);
    // The answers to blocks that the page counts as handled may be lost; they are taken as given.
    for (auto at = fUnderWay.begin(); at != fUnderWay.end();) {
        const auto block = at++;
        if (block->number == 0 || block->number > last) continue;
        const bool isRefused = std::ranges::find(refused, block->number) != refused.end();
        leave(fUnderWay, block, !isRefused, left);
    }
    for (auto entry = fNumbered.begin(); entry != fUnwritten; ++entry) {
        fKept -= ownSize(*entry) + sharedSize(*entry);
        if (entry->block != nullptr) unsend(*entry->block);
    }
    // Also what was to be written again, since it had returned with less before.
    fAcknowledged = last;
    while (!fNumbered.empty() && lastNumber(fNumbered.front()) <= last) {
        erase(fNumbered, fNumbered.begin());
    }
    fUnwritten = fNumbered.begin();
}

void Outbox::dropBlocks(PageBlocks& left) noexcept { dropBlocksBefore(TimePoint::max(), left); }

void Outbox::dropBlocksBefore(TimePoint since, PageBlocks& left) noexcept {
    bool isAny = false;
    const auto drop = [&](PageBlocks& blocks) {
        for (auto at = blocks.begin(); at != blocks.end();) {
            const auto block = at++;
            if (block->since >= since || isBeingWritten(*block)) continue;
            leave(blocks, block, false, left);
            isAny = true;
        }
    };
    drop(fWaiting);
    drop(fUnderWay);
    if (isAny) fTurn.reset();  // the block that waits for its turn may be among them
}

void Outbox::forgetTexts() noexcept {
    const auto forget = [this](Entries& entries, bool areNumbered) {
        for (auto at = entries.begin(); at != entries.end();) {
            const auto entry = at++;
            const bool isWriting =
                areNumbered && fWriting.source == Source::kNumbered && entry == fUnwritten;
            if (entry->isBlock || isWriting) continue;
            if (areNumbered && entry == fUnwritten) ++fUnwritten;
            erase(entries, entry);
        }
    };
    forget(fNumbered, true);
    for (auto& lane : fLanes) forget(lane.entries, false);
    fKept = 0;
    for (const auto& block : fUnderWay) fKept += block.sent == block.size ? block.size : 0;
    for (auto at = fNumbered.begin(); at != fNumbered.end() && at != fUnwritten; ++at) {
        fKept += ownSize(*at) + sharedSize(*at);
    }
}

void Outbox::clear(PageBlocks& left) noexcept {
    KIROWEB_REQUIRE(fWriting.source == Source::kNothing);
    dropBlocks(left);
    fUnwritten = fNumbered.end();
    while (!fNumbered.empty()) erase(fNumbered, fNumbered.begin());
    for (auto& lane : fLanes) {
        while (!lane.entries.empty()) erase(lane.entries, lane.entries.begin());
    }
    detach();
    fKept = 0;
}

bool Outbox::isBeingWritten(const PageBlock& block) const noexcept {
    if (fWriting.source == Source::kNumbered) return fUnwritten->block == &block;
    return fWriting.source == Source::kLane &&
           fLanes[fWriting.lane].entries.front().block == &block;
}

// --- State -------------------------------------------------------------------------------------

std::uint64_t Outbox::next() const noexcept {
    return fUnwritten != fNumbered.end() ? fUnwritten->number : fNext;
}

std::vector<std::string> Outbox::blockChannels() const {
    std::vector<std::string> names;
    for (const auto& channel : fBlockChannels) names.push_back(channel.name);
    return names;
}

Pace::Load Outbox::load() const noexcept {
    return {fBytes - fKept, true, fKept, fAdded, fTaken, fReleased};
}

}  // namespace kirogateway
