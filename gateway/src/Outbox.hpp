#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Transfer.hpp"
#include "kirogateway/Options.hpp"

namespace kirogateway {

/// A block that one page left; `Transfer::leave` is due, with no lock held.
struct Leaving {
    std::shared_ptr<Transfer> transfer;
    bool hasBlock = false;
};
using LeavingList = std::vector<Leaving>;

/// Everything that goes to one view: what waits, what is being written, and what was written but
/// may have to be written again. It makes the bytes and knows no socket. Not synchronised.
///
/// Bytes are pulled: `pending` shows the next ones, `written` says how many of them went. Control
/// goes first, then the names of block channels that the page does not know, then what a returned
/// page missed, then the lanes in turns. A message is numbered when its last frame begins, so the
/// numbers run in the order of writing.
///
/// No operation calls out. Transfers that end here are handed to the caller, who ends them when
/// it holds no lock.
class Outbox {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    /// At most two stretches of bytes, header and body; both empty: nothing can be written now.
    using Pending = std::array<std::string_view, 2>;

    /// With `keeps` what was written is kept until it is acknowledged.
    /// REQUIRES: `limits` outlives the outbox.
    Outbox(const Limits& limits, std::size_t lanes, bool keeps);

    // --- Filling ---

    /// Queues a text as it is to stand in a record. Answers false, and does nothing, when too
    /// much waits already.
    [[nodiscard]] bool addText(std::size_t lane, std::string_view channel, std::string_view text,
                               bool isBase64, TimePoint now);
    /// Whether a block of so many bytes would fit into an empty outbox.
    [[nodiscard]] bool canHold(std::size_t size) const noexcept;
    /// As `addText`. REQUIRES: `transfer` was joined for this page.
    [[nodiscard]] bool addBlock(std::size_t lane, std::string_view channel,
                                std::shared_ptr<Transfer> transfer, TimePoint now);
    /// What a new connection begins with; it names the first `channelsNamed` block channels.
    void greet(std::string_view hello, std::size_t channelsNamed);
    void addControl(std::string_view text);
    /// Queues bytes of whole frames, as control.
    void addFrames(std::string frames);

    // --- Writing ---

    /// Valid until `written`, whatever is added meanwhile.
    [[nodiscard]] Pending pending(TimePoint now);
    /// REQUIRES: `count` is at most what `pending` showed last.
    void written(std::size_t count);

    // --- What the page says ---

    void acknowledge(std::uint64_t last);
    void answer(std::uint64_t transfer, bool hasBlock, LeavingList& leaving);

    // --- Losing and regaining the connection ---

    /// The connection is over: what was begun will be written again. Answers the rest of the frame
    /// being written, for a caller that wants to say something more.
    std::string detach();
    /// Whether a page that has everything up to `last` can go on from there.
    [[nodiscard]] bool canResume(std::uint64_t last) const noexcept;
    /// The page is there again; the blocks of the messages in `refused` it has not taken.
    /// REQUIRES: canResume(last); detached.
    void resume(std::uint64_t last, const std::vector<std::uint64_t>& refused,
                LeavingList& leaving);
    /// Leaves every block, for good.
    void dropBlocks(LeavingList& leaving);
    /// Leaves every block and forgets every text: nothing is written any more.
    /// REQUIRES: detached.
    void clear(LeavingList& leaving);
    /// Leaves the blocks that were handed over before `since`. Answers false when one of them is
    /// in the middle of a frame: the connection has to go.
    [[nodiscard]] bool dropBlocksBefore(TimePoint since, LeavingList& leaving);

    // --- State ---

    /// The number of the next message to be written.
    [[nodiscard]] std::uint64_t next() const noexcept;
    [[nodiscard]] const std::vector<std::string>& blockChannels() const noexcept {
        return fBlockChannels;
    }
    /// Since when the oldest thing that was not wholly written waits; `now` when there is none.
    [[nodiscard]] TimePoint waitingSince(TimePoint now) const noexcept;
    [[nodiscard]] std::size_t bytes() const noexcept { return fBytes; }
    [[nodiscard]] std::size_t blocksUnderWay() const noexcept { return fUnderWay.size(); }
    [[nodiscard]] std::size_t bytesUnderWay() const noexcept { return fBytesUnderWay; }
    [[nodiscard]] std::uint64_t acknowledged() const noexcept { return fAcknowledged; }

  private:
    struct Block {
        std::shared_ptr<Transfer> transfer;  ///< empty when this page has left it
        std::uint16_t channel = 0;
        std::uint32_t id = 0;
        std::uint64_t number = 0;  ///< of its message; 0: none yet
        std::size_t size = 0;
        std::size_t sent = 0;  ///< bytes in pieces that were written
        TimePoint since;
    };
    /// A batch of texts or one block.
    struct Entry {
        TimePoint since;
        std::uint64_t number = 0;  ///< of its first message; 0: none yet
        std::uint64_t count = 0;   ///< of messages
        std::string records;
        std::shared_ptr<Block> block;
    };
    struct Lane {
        std::deque<Entry> entries;
        std::string lastChannel;  ///< of the newest record
    };
    enum class Source { kNothing, kControl, kLane, kNumbered };
    /// The frame being written.
    struct Writing {
        Source source = Source::kNothing;
        std::size_t lane = 0;
        bool isLastPiece = true;
        std::size_t pieceSize = 0;
        std::array<char, 48> head{};
        std::size_t headSize = 0;
        std::string_view body;
        std::size_t done = 0;
        TimePoint since;
    };

    [[nodiscard]] Entry& openBatch(Lane& lane, std::string_view channel, TimePoint now);
    [[nodiscard]] bool hasRoom(std::size_t size) const noexcept;
    [[nodiscard]] std::uint16_t channelNumber(std::string_view channel);
    void begin(TimePoint now);
    [[nodiscard]] bool beginFromLane(std::size_t lane);
    [[nodiscard]] bool mayStart(const Block& block) const noexcept;
    /// Answers false when the lane's first block has to wait for others to be answered.
    [[nodiscard]] bool startBlock(std::size_t lane, const std::shared_ptr<Block>& block);
    void beginNumbered(TimePoint now);
    void beginControl(std::string frame, TimePoint now);
    void beginBatch(const Entry& entry);
    void beginPiece(Block& block, std::uint64_t number);
    void putFrameHeader(unsigned char opcode, std::size_t payload);
    void finish();
    void popAcknowledged();
    void leave(const std::shared_ptr<Block>& block, bool hasBlock, LeavingList& leaving);
    [[nodiscard]] bool isBeingWritten(const Block& block) const noexcept;

    const Limits& fLimits;
    const bool fKeeps;

    std::vector<Lane> fLanes;
    std::size_t fNextLane = 0;
    std::deque<std::string> fControls;
    std::string fControl;  ///< being written

    /// Numbered, in order: written and kept, then, from `fUnwritten` on, to be written again.
    std::deque<Entry> fNumbered;
    std::size_t fUnwritten = 0;
    std::uint64_t fNext = 1;
    std::uint64_t fAcknowledged = 0;
    std::uint64_t fWrittenUpTo = 0;

    std::map<std::uint32_t, std::shared_ptr<Block>> fUnderWay;  ///< begun and not answered
    std::size_t fBytesUnderWay = 0;
    std::uint32_t fLastTransfer = 0;
    /// The lane whose first block was too large to be started: no other lane starts a block before.
    std::optional<std::size_t> fTurn;
    std::vector<std::string> fBlockChannels;
    std::size_t fChannelsNamed = 0;  ///< that the page knows

    Writing fWriting;
    std::size_t fBytes = 0;      ///< of texts and blocks that are held here
    std::size_t fLastBatch = 0;  ///< in bytes; the next one is as large, most likely
};

}  // namespace kirogateway
