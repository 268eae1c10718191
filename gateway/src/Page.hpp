#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Carrier.hpp"
#include "ChannelList.hpp"
#include "Outbox.hpp"
#include "PageMessages.hpp"
#include "annotated/Mutex.hpp"

namespace kirogateway {

/// A text on its way to the pages.
struct Text {
    std::string_view channel;
    std::string_view text;  ///< as it stands in a record
    bool isBase64 = false;
    std::size_t lane = 0;
};

/// One view: what is sent to it, and the connection that it has at the moment, if any.
///
/// A publishing thread writes to the socket itself, without blocking, when the socket takes it.
/// If it does not, or if texts come so fast that a frame for each would cost more than the texts,
/// they wait, and the gateway's thread writes them together; the publishing threads do not wait
/// for that.
class Page {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    struct Identity {
        std::string view;         ///< its holder may return
        std::uint64_t count = 0;  ///< of views, this one included
        std::string client;       ///< a name, from outside
        bool mayReturn = true;
        std::uint64_t maxBlock = 0;  ///< the largest that it takes, in bytes
    };

    /// REQUIRES: `limits` outlives the page.
    Page(Identity identity, const Limits& limits, std::size_t lanes, TimePoint now);

    [[nodiscard]] const Identity& identity() const noexcept { return fIdentity; }

    // --- Publishing threads; they must not be kept waiting ---

    /// Queues and, if possible, writes. Never throws: a page for which something cannot be kept
    /// is marked as failed. Answers whether the page hears it.
    bool publish(const Text& text) noexcept;
    /// Whether a page takes part in a transfer.
    enum class Part { kNone, kJoined, kRefused };
    [[nodiscard]] Part offer(std::string_view channel, std::size_t lane,
                             const std::shared_ptr<Transfer>& transfer, TimePoint now) noexcept;

    /// Marks the page as one that has to be closed.
    void fail(std::string_view why) noexcept;

    // --- The gateway's thread ---

    /// What a connection begins with.
    struct Greeting {
        std::string hello;
        std::size_t channelsNamed = 0;  ///< the block channels in it
    };

    /// Gives the page its connection. With `socket` not -1 any thread writes to that socket;
    /// otherwise the carrier asks for bytes with `collect`.
    /// REQUIRES: not connected.
    void attach(std::shared_ptr<Carrier> carrier, int socket, const Greeting& greeting,
                TimePoint now);
    /// As `attach`, for a page that returns, by what it says itself in `hello`.
    /// REQUIRES: canResume(hello.last).
    void reattach(std::shared_ptr<Carrier> carrier, int socket, const Greeting& greeting,
                  const wire::Hello& hello, TimePoint now, LeavingList& leaving);
    [[nodiscard]] bool canResume(std::uint64_t last) const;
    /// Takes the connection away: once this has returned nobody writes to the socket. Answers the
    /// rest of the frame that was being written.
    std::string detach();
    /// Empty when detached.
    [[nodiscard]] std::shared_ptr<Carrier> carrier() const;
    [[nodiscard]] std::vector<std::string> blockChannels() const;

    /// The socket takes bytes again. Writes with no lock held.
    void writeMore(TimePoint now);
    /// As `writeMore`, for the rest of a burst. Answers whether to call it again a moment later.
    [[nodiscard]] bool writeTail(TimePoint now);
    /// Moves up to about `size` bytes to the end of `to`. Answers false when there are none.
    [[nodiscard]] bool collect(std::string& to, std::size_t size, TimePoint now);

    void sendControl(std::string_view text, TimePoint now);
    void sendFrames(std::string frames, TimePoint now);

    void subscribe(std::string_view channel);
    void unsubscribe(std::string_view channel);
    [[nodiscard]] std::vector<std::string> subscriptions() const;
    [[nodiscard]] std::size_t subscriptionCount() const;
    void acknowledge(std::uint64_t last);
    void answer(std::uint64_t transfer, bool hasBlock, TimePoint now, LeavingList& leaving);

    /// Something came from the page. Any thread.
    void heard(TimePoint now) noexcept { fLastSign = now; }
    [[nodiscard]] TimePoint lastSign() const noexcept { return fLastSign; }
    /// The page is about to publish something: an answer most likely, so that it keeps up and the
    /// next texts are waited for.
    void speaks() noexcept { fHasSpoken = true; }

    /// Why the page has to be closed, empty when it need not.
    [[nodiscard]] std::string failure() const;
    /// Looks at what has waited too long. Answers as `failure`.
    [[nodiscard]] std::string checkTimes(TimePoint now, LeavingList& leaving);
    /// REQUIRES: detached.
    void dropBlocks(LeavingList& leaving);
    /// The view is over: nothing is queued any more, nor kept. REQUIRES: detached.
    void retire(LeavingList& leaving);

    struct State {
        bool isConnected = false;
        std::uint64_t next = 1;
        std::uint64_t acknowledged = 0;
        std::size_t bytes = 0;
        std::size_t blocksUnderWay = 0;
        std::size_t bytesUnderWay = 0;
        std::chrono::milliseconds waiting{0};
        std::chrono::milliseconds silence{0};
    };
    [[nodiscard]] State state(TimePoint now) const;

  private:
    [[nodiscard]] bool hearsLocked(std::string_view channel) REQUIRES_LOCK(fMutex);
    [[nodiscard]] bool takesLocked(std::size_t block) const REQUIRES_LOCK(fMutex);
    void pushLocked(TimePoint now) REQUIRES_LOCK(fMutex);
    /// Whether a text may have a frame of its own, which is then counted.
    [[nodiscard]] bool mayGoAloneLocked(TimePoint now) REQUIRES_LOCK(fMutex);
    /// What a publisher writes.
    void writeLocked(TimePoint now) REQUIRES_LOCK(fMutex);
    /// What the gateway's thread writes, unless it does so later anyway.
    void write(TimePoint now);
    void failLocked(std::string_view why) noexcept REQUIRES_LOCK(fMutex);
    void connectLocked(std::shared_ptr<Carrier> carrier, int socket, const Greeting& greeting,
                       TimePoint now) REQUIRES_LOCK(fMutex);
    void checkRoomLocked() REQUIRES_LOCK(fMutex);

    const Identity fIdentity;
    const Limits& fLimits;
    std::atomic<TimePoint> fLastSign;
    std::atomic<bool> fHasSpoken{false};  ///< and nothing was published since

    mutable annotated::Mutex fMutex{annotated::Rank::kView};
    Outbox fOutbox GUARDED_BY(fMutex);
    ChannelList fSubscriptions GUARDED_BY(fMutex);
    std::string fLastChannel GUARDED_BY(fMutex);  ///< asked about last, with the answer
    bool fHearsLast GUARDED_BY(fMutex) = false;

    std::shared_ptr<Carrier> fCarrier GUARDED_BY(fMutex);
    int fSocket GUARDED_BY(fMutex) = -1;
    TimePoint fConnectedAt GUARDED_BY(fMutex);
    bool fIsRetired GUARDED_BY(fMutex) = false;
    bool fIsAway GUARDED_BY(fMutex) = false;          ///< for so long that it takes no blocks
    bool fIsWritingLater GUARDED_BY(fMutex) = false;  ///< the gateway's thread does, or will
    bool fIsTailLater GUARDED_BY(fMutex) = false;     ///< the carrier will call `writeTail`
    TimePoint fLookedAt GUARDED_BY(fMutex);           ///< at the burst whose tail that is
    TimePoint fSpentUntil GUARDED_BY(fMutex);         ///< on texts with a frame of their own
    std::string fFailure GUARDED_BY(fMutex);
};

}  // namespace kirogateway
