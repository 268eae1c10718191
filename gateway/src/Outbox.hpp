#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Budget.hpp"
#include "Pace.hpp"
#include "Socket.hpp"
#include "Text.hpp"
#include "Transfer.hpp"
#include "kirogateway/Options.hpp"

namespace kirogateway {

/// A batch of texts, a text that is shared with other pages, or one block.
struct OutboxEntry {
    std::uint64_t number = 0;  ///< of its first message; 0: none yet
    std::uint64_t count = 0;   ///< of messages
    std::string records;       ///< of a shared text: what stands before it
    std::shared_ptr<const SharedText> shared;
    std::uint32_t transfer = 0;  ///< of a block
    PageBlock* block = nullptr;  ///< null: no block, or one that this page has left
    PageBlocks::iterator where;  ///< of the block in its list
    bool isBlock = false;
    bool isBegun = false;  ///< of a block without a number: pieces of it were written
};

/// Everything that goes to one view: what waits, what is being written, and what was written but
/// may have to be written again. It makes the bytes and knows no connection. Not synchronised.
///
/// Bytes are pulled: `pending` shows the next ones, `written` says how many of them went. Control
/// goes first, then the names of block channels that the page does not know, then what a returned
/// page missed, then the lanes in turns. A message is numbered when its last frame begins, so the
/// numbers run in the order of writing.
///
/// Memory is asked for when something is added, never when it is written or let go: what fails has
/// changed nothing. No operation calls out. Blocks that end here are handed to the caller, who
/// tells their transfers when it holds no lock.
class Outbox {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Pending = Socket::Bytes;

    /// What became of something to be added.
    enum class Added {
        kYes,
        kNoMemory,    ///< the gateway's budget is used up
        kNoLostRoom,  ///< that of the lost views is
        kNever,       ///< it is larger than a frame can say, or there are too many channels
    };

    /// With `keeps` what was written is kept until it is acknowledged.
    /// REQUIRES: `limits` outlives the outbox.
    Outbox(const Limits& limits, std::size_t lanes, bool keeps, std::shared_ptr<Budget> budget);
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;
    ~Outbox();

    // --- Filling; each throws std::bad_alloc ---

    /// Queues a text. With `isRoomMade` the gateway's budget may be exceeded, since somebody is
    /// about to give back enough of it.
    [[nodiscard]] Added addText(const Text& text, bool isRoomMade = false);
    /// Queues a block. When the result is kYes, the caller joins `transfer`.
    [[nodiscard]] Added addBlock(std::size_t lane, std::string_view channel,
                                 const std::shared_ptr<Transfer>& transfer, TimePoint now,
                                 bool isRoomMade = false);
    /// Queues bytes of whole frames, as control, room or not: there is little of it.
    void addFrames(std::string frames);
    void addControl(std::string_view text);

    // --- Writing ---

    /// The next bytes; all empty: nothing can be written now. Valid until `written`, whatever is
    /// added or let go meanwhile.
    [[nodiscard]] Pending pending() noexcept;
    /// REQUIRES: `count` is at most what `pending` showed last.
    void written(std::size_t count) noexcept;

    // --- What the page says ---

    /// A number that was not written yet is ignored.
    void acknowledge(std::uint64_t last) noexcept;
    void answer(std::uint64_t transfer, bool hasBlock, PageBlocks& left) noexcept;

    // --- Losing and regaining the connection ---

    /// The connection is over: what was begun will be written again.
    void detach() noexcept;
    /// Whether a frame has been written in part.
    [[nodiscard]] bool isWithinFrame() const noexcept {
        return fWriting.source != Source::kNothing && fWriting.done > 0;
    }
    /// The rest of the frame being written, for a caller that wants to say something more behind
    /// it. Throws std::bad_alloc.
    [[nodiscard]] std::string restOfFrame() const;
    /// Whether a page that has everything up to `last` can go on from there.
    [[nodiscard]] bool canResume(std::uint64_t last) const noexcept;
    /// A new connection begins: `hello` is the one element that it says first; it names the first
    /// `channelsNamed` block channels. REQUIRES: detached.
    void begin(std::list<std::string>&& hello, std::size_t channelsNamed, bool keeps) noexcept;
    /// The page is there again; the blocks of the messages in `refused` it has not taken.
    /// REQUIRES: canResume(last); detached.
    void resume(std::uint64_t last, const std::vector<std::uint64_t>& refused,
                PageBlocks& left) noexcept;
    /// From now on until `begin` all that is held counts against `lost` too, room or not.
    void countAsLost(std::shared_ptr<Budget> lost) noexcept;

    /// Leaves every block, for good.
    void dropBlocks(PageBlocks& left) noexcept;
    /// Leaves the blocks that were handed over before `since`, but for one in the middle of a
    /// frame.
    void dropBlocksBefore(TimePoint since, PageBlocks& left) noexcept;
    /// Forgets all texts but one that is being written, since the view ends. Blocks stay.
    void forgetTexts() noexcept;
    /// Leaves every block and forgets every text: nothing is written any more.
    /// REQUIRES: detached.
    void clear(PageBlocks& left) noexcept;

    // --- State ---

    /// The number of the next message to be written.
    [[nodiscard]] std::uint64_t next() const noexcept;
    [[nodiscard]] std::vector<std::string> blockChannels() const;
    [[nodiscard]] std::size_t blocksUnderWay() const noexcept { return fUnderWay.size(); }
    [[nodiscard]] std::size_t bytesUnderWay() const noexcept { return fBytesUnderWay; }
    [[nodiscard]] std::uint64_t acknowledged() const noexcept { return fAcknowledged; }
    /// Bytes of memory, a shared block or text as if it were this page's alone.
    [[nodiscard]] std::size_t bytes() const noexcept { return fBytes; }
    /// Of these, in control frames that wait.
    [[nodiscard]] std::size_t controlBytes() const noexcept { return fControlBytes; }
    [[nodiscard]] Pace::Load load() const noexcept;

  private:
    using Entry = OutboxEntry;
    using Entries = std::list<Entry>;
    struct Lane {
        Entries entries;
        std::string lastChannel;  ///< of the newest record
    };
    struct BlockChannel {
        std::string name;
        std::string frame;  ///< that tells the page its number
    };
    enum class Source { kNothing, kControl, kNamed, kLane, kNumbered };
    /// The frame being written.
    struct Writing {
        Source source = Source::kNothing;
        std::size_t lane = 0;
        bool isLastPiece = true;
        std::size_t pieceSize = 0;
        std::array<char, 96> head{};
        std::size_t headSize = 0;
        std::string_view prefix;
        std::string_view body;
        std::size_t done = 0;
    };

    [[nodiscard]] Added hold(std::size_t own, std::size_t shared, bool isRoomMade) noexcept;
    /// Room or not. REQUIRES: there is a connection.
    void holdAnyway(std::size_t own) noexcept;
    void letGo(std::size_t own, std::size_t shared) noexcept;
    [[nodiscard]] static std::size_t controlSize(const std::string& frames) noexcept;
    [[nodiscard]] static std::size_t ownSize(const Entry& entry) noexcept;
    [[nodiscard]] static std::size_t sharedSize(const Entry& entry) noexcept;
    [[nodiscard]] static std::size_t payloadSize(const Entry& entry) noexcept;
    [[nodiscard]] static std::uint64_t lastNumber(const Entry& entry) noexcept;
    [[nodiscard]] Added grow(Entry& entry, std::size_t more, bool isRoomMade);
    [[nodiscard]] Added addShared(const Text& text, bool isRoomMade);
    [[nodiscard]] std::size_t expectedMore(const Lane& lane) const noexcept;
    [[nodiscard]] bool canTake(const Lane& lane, std::string_view channel) const noexcept;
    void append(Lane& lane, Entry& entry, const Text& text);
    [[nodiscard]] Added addEntry(Lane& lane, Entries&& entry, std::size_t shared,
                                 bool isRoomMade) noexcept;
    [[nodiscard]] std::uint16_t channelNumber(std::string_view channel);

    /// Of the frame being written.
    [[nodiscard]] Pending unwritten() const noexcept;
    void beginFrame() noexcept;
    [[nodiscard]] bool beginFromLane(std::size_t lane) noexcept;
    [[nodiscard]] bool mayStart(const PageBlock& block) const noexcept;
    /// Answers false when the lane's first block has to wait for others to be answered.
    [[nodiscard]] bool startBlock(std::size_t lane, PageBlock& block) noexcept;
    void beginNumbered() noexcept;
    void beginBatch(const Entry& entry) noexcept;
    void beginPiece(const PageBlock& block, std::uint64_t number) noexcept;
    void beginWithdrawn(const Entry& entry) noexcept;
    void putHead(std::string_view bytes) noexcept;
    void putFrameHeader(bool isText, std::size_t payload) noexcept;
    void finish() noexcept;
    void finishNumbered(const Writing& writing) noexcept;
    void popAcknowledged() noexcept;
    void unsend(PageBlock& block) noexcept;
    /// `block` is one of `from`, the waiting ones or those under way.
    void leave(PageBlocks& from, PageBlocks::iterator block, bool hasBlock,
               PageBlocks& left) noexcept;
    void erase(Entries& from, Entries::iterator entry) noexcept;
    [[nodiscard]] bool isBeingWritten(const PageBlock& block) const noexcept;

    const Limits& fLimits;
    const std::shared_ptr<Budget> fBudget;
    std::shared_ptr<Budget> fLost;  ///< while the view has no connection
    bool fKeeps;

    std::vector<Lane> fLanes;
    std::size_t fNextLane = 0;
    std::list<std::string> fControls;  ///< the first may be being written
    std::size_t fControlBytes = 0;

    /// Numbered, in order: written and kept, then, from `fUnwritten` on, to be written again.
    Entries fNumbered;
    Entries::iterator fUnwritten = fNumbered.end();
    std::uint64_t fNext = 1;
    std::uint64_t fAcknowledged = 0;
    std::uint64_t fWrittenUpTo = 0;

    PageBlocks fWaiting;   ///< in the lanes, in no order
    PageBlocks fUnderWay;  ///< begun and not answered
    std::size_t fBytesUnderWay = 0;
    std::uint32_t fLastTransfer = 0;
    /// The lane whose first block was too large to be started: no other lane starts a block before.
    std::optional<std::size_t> fTurn;
    std::deque<BlockChannel> fBlockChannels;  ///< which stay where they are
    std::size_t fChannelsNamed = 0;           ///< that the page knows

    Writing fWriting;
    std::size_t fLastBatch = 0;  ///< in bytes; the next one is as large, most likely

    std::size_t fBytes = 0;
    std::size_t fOwnBytes = 0;  ///< of these, not shared
    std::size_t fKept = 0;      ///< of these, written and not let go
    // Of what travels, without what it costs in memory beside.
    std::uint64_t fAdded = 0;
    std::uint64_t fTaken = 0;
    std::uint64_t fReleased = 0;
};

}  // namespace kirogateway
