#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "BlockWaits.hpp"
#include "NumberedLog.hpp"
#include "SendWindow.hpp"
#include "annotated/Mutex.hpp"
#include "text/ChannelPattern.hpp"

namespace kirolink {

/// What an engine sends to its gateways: numbered once for all, kept until each of them has it.
/// While there is none, nothing is kept.
class DownStream {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Reader = std::uint64_t;  ///< a gateway's incarnation
    /// So long texts are gathered after something was sent.
    static constexpr std::chrono::milliseconds kGather{1};

    /// `maySubscribe`: what is on other channels no page can hear, so it is not sent; `most`: bytes
    /// that are kept; `wake`: called without a lock when there is something to send, by whoever
    /// publishes.
    DownStream(std::uint64_t epoch, std::size_t most, const std::vector<std::string>& maySubscribe,
               std::function<void()> wake);

    // --- Any thread; none of them waits ---------------------------------------------------------

    /// If there is no memory for it, no reader goes on as if there had been nothing: all are lost.
    void text(std::string_view channel, std::string_view text) noexcept;
    enum class Offered : std::uint8_t { kTaken, kNobody, kRefused };
    /// `wait` is told what becomes of the block, within this call if it is not taken. kRefused: it
    /// is too large, or there is no memory.
    Offered block(std::string_view channel, std::string_view block,
                  std::unique_ptr<BlockWait> wait) noexcept;
    /// Nothing is taken any more, and what was not told to the sending thread is given back.
    void close() noexcept;
    [[nodiscard]] std::size_t bytes() const noexcept;
    [[nodiscard]] std::uint64_t framesSent() const noexcept { return fFramesSent; }
    [[nodiscard]] std::uint64_t bytesSent() const noexcept { return fBytesSent; }
    /// Blocks that were not taken.
    [[nodiscard]] std::uint64_t blocksNobody() const noexcept { return fBlocksNobody; }
    [[nodiscard]] std::uint64_t blocksRefused() const noexcept { return fBlocksRefused; }

    // --- The sending thread ---------------------------------------------------------------------

    /// Returns the number of the first frame that the reader gets. REQUIRES: not closed. Throws
    /// std::bad_alloc.
    std::uint64_t join(Reader reader);
    void leave(Reader reader) noexcept;
    /// The reader has everything below `next`. Returns false if that cannot be.
    bool acknowledged(Reader reader, std::uint64_t next, TimePoint now) noexcept;
    [[nodiscard]] bool isReader(Reader reader) const noexcept;
    /// Whether the reader has not had for longer than `time` something that was sent to it.
    [[nodiscard]] bool isBehind(Reader reader, TimePoint now,
                                std::chrono::milliseconds time) const noexcept;
    struct Lost {
        Reader reader = 0;
        const char* why = "";
    };
    /// Readers that had to be given up meanwhile. They have left already.
    [[nodiscard]] std::vector<Lost> takeLost();
    struct Block {
        std::uint64_t number = 0;  ///< of its last piece
        std::unique_ptr<BlockWait> wait;
        std::vector<Reader> readers;  ///< who were there
    };
    [[nodiscard]] std::vector<Block> takeBlocks() noexcept;
    /// Everything below this number has been sent.
    [[nodiscard]] std::uint64_t sentBelow() const noexcept;
    /// Sends what is to be sent; returns when to call again. Throws std::bad_alloc.
    TimePoint send(Cluster& cluster, const std::string& subject, TimePoint now);
    /// The next texts are sent without gathering more. To be called by the thread that sends.
    void hurry() noexcept { fLastSent = {}; }
    /// See `kirolink::sendAgain`; `header` is that of the question.
    std::size_t sendAgain(const frame::Header& header, const frame::Ask& ask, Resends& resends,
                          Cluster& cluster, const std::string& subject, TimePoint now);

  private:
    struct Position {
        Reader reader = 0;
        std::uint64_t has = 0;  ///< everything below
    };

    Offered take(std::string_view channel, std::string_view block,
                 std::unique_ptr<BlockWait>& wait) noexcept;
    [[nodiscard]] frame::Header headerLocked() const noexcept REQUIRES_LOCK(fMutex) {
        return {fEpoch, 0, fLog.next()};
    }
    struct Next {
        Cluster::Bytes frame;      ///< null: none
        std::uint64_t number = 0;  ///< the frame's
        TimePoint again{};         ///< when there may be one
    };
    [[nodiscard]] Next nextToSend(TimePoint now);
    /// Everything below has come to somebody.
    [[nodiscard]] std::uint64_t foremostLocked() const noexcept REQUIRES_LOCK(fMutex);
    void closeBatchLocked() REQUIRES_LOCK(fMutex);
    /// Throws std::bad_alloc; nothing has happened then, to `frame` neither.
    void appendLocked(std::string&& frame) REQUIRES_LOCK(fMutex);
    void appendPiecesLocked(bool isBlock, std::string_view channel, std::string_view whole)
        REQUIRES_LOCK(fMutex);
    void releaseLocked() noexcept REQUIRES_LOCK(fMutex);
    void loseAllLocked(const char* why) noexcept REQUIRES_LOCK(fMutex);
    [[nodiscard]] const Position* findLocked(Reader reader) const noexcept REQUIRES_LOCK(fMutex);

    const std::uint64_t fEpoch;
    const std::size_t fMost;
    const std::function<void()> fWake;
    std::vector<ChannelPattern> fHeard;  ///< constant after construction

    std::atomic<bool> fHasReaders{false};
    std::atomic<std::uint64_t> fFramesSent{0};
    std::atomic<std::uint64_t> fBytesSent{0};
    std::atomic<std::uint64_t> fBlocksNobody{0};
    std::atomic<std::uint64_t> fBlocksRefused{0};
    TimePoint fLastSent{};  ///< the sending thread's

    mutable annotated::Mutex fMutex{annotated::Rank::kLinkSend};
    BatchWriter fBatch GUARDED_BY(fMutex);
    NumberedLog fLog GUARDED_BY(fMutex);
    SendWindow fWindow GUARDED_BY(fMutex);
    std::vector<Position> fReaders GUARDED_BY(fMutex);
    std::vector<Lost> fLost GUARDED_BY(fMutex);  ///< has room for all readers
    std::vector<Block> fBlocks GUARDED_BY(fMutex);
};

}  // namespace kirolink
