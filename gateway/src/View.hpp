#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Backlog.hpp"
#include "ChannelList.hpp"
#include "Connection.hpp"
#include "Context.hpp"
#include "Outbox.hpp"
#include "Pace.hpp"
#include "PageMessages.hpp"
#include "Socket.hpp"
#include "annotated/Mutex.hpp"

namespace kirogateway {

/// One view: what is sent to it, what it hears, and the connection that it has at the moment.
///
/// A publishing thread writes to the socket itself, without blocking, when the socket takes it.
/// If it does not, or if texts come so fast that a frame for each would cost more than the texts,
/// they wait, and the gateway's thread writes them together; the publishing threads do not wait
/// for that.
class View {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    enum class State {
        kNew,        ///< it has not had a connection yet
        kConnected,  ///< it has a connection
        kLost,       ///< it has none, and counts as there for a moment longer
        kGone,       ///< it has had none for so long that it takes no blocks; it may return
        kOver,       ///< for good
    };

    /// Why the view ends that holds most when there is no room for anything more.
    static constexpr const char* kMemoryUsedUp =
        "the most was held for it when the gateway's memory was used up";
    /// Why one ends without a connection when there is no room for anything more of such views.
    static constexpr const char* kTooMuchLost =
        "more was kept for lost views than they may have together";

    struct Identity {
        std::string name;         ///< its holder may return
        std::uint64_t count = 0;  ///< of views, this one included
        std::string client;       ///< a name, from outside
    };
    /// What a page says of itself when it connects.
    struct Abilities {
        bool mayReturn = true;
        std::uint64_t maxBlock = 0;  ///< the largest that it takes, in bytes
    };

    View(Identity identity, Abilities abilities, std::shared_ptr<const Context> context,
         std::shared_ptr<Wakeup> wakeup, std::size_t lanes, TimePoint now);
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    ~View();

    [[nodiscard]] const Identity& identity() const noexcept { return fIdentity; }
    [[nodiscard]] const std::shared_ptr<Backlog>& backlog() const noexcept { return fBacklog; }

    // --- Publishing threads; they must not be kept waiting ---

    /// Queues and, if possible, writes; a view for which there is no memory has failed. Returns
    /// what became of it; kNever: the view does not hear any more.
    /// `isRoomMade`: see `Outbox::addText`.
    [[nodiscard]] Outbox::Added publish(const Text& text, bool isRoomMade) noexcept;
    /// Whether a page takes part in a transfer.
    enum class Part { kNone, kJoined, kRefused, kNoMemory, kNoLostRoom };
    [[nodiscard]] Part offer(std::string_view channel, std::size_t lane,
                             const std::shared_ptr<Transfer>& transfer, TimePoint now,
                             bool isRoomMade) noexcept;
    [[nodiscard]] bool hears(std::string_view channel) const;

    /// Marks the view as one that has to end, and forgets its texts. REQUIRES: `why` is a literal.
    void fail(const char* why) noexcept;
    /// Bytes that are held for it, 0 when it has failed already. No lock.
    [[nodiscard]] std::size_t heldBytes() const noexcept { return fHeld; }

    // --- The gateway's thread ---

    /// What a connection begins with.
    struct Greeting {
        std::list<std::string> hello;   ///< one frame
        std::size_t channelsNamed = 0;  ///< the block channels in it
    };

    /// Gives the view its connection, to which nothing is written before `write`. With `isDirect`
    /// any thread writes to the socket; otherwise the connection asks for bytes with `collect`.
    /// REQUIRES: it has none.
    void attach(Connection& connection, std::shared_ptr<Socket> socket, bool isDirect,
                Greeting&& greeting, TimePoint now) noexcept;
    /// Its page returns and says so in `hello`; it is about to be given its connection.
    /// REQUIRES: it has none; canResume(hello.last).
    void resume(const wire::Hello& hello, PageBlocks& left) noexcept;
    [[nodiscard]] bool canResume(std::uint64_t last) const;
    /// What becomes of a view whose connection is taken away.
    enum class Fate { kMayReturn, kEnds };
    /// Takes the connection away: once this has returned nobody writes to the socket.
    void detach(TimePoint now, Fate fate) noexcept;
    /// As `detach`; returns the rest of the frame that was being written, nothing if there is no
    /// memory for it (`isCut`): then no other frame may follow.
    struct Rest {
        std::string bytes;
        bool isCut = false;
    };
    [[nodiscard]] Rest detachBetweenFrames(TimePoint now, Fate fate) noexcept;
    /// Null when it has none.
    [[nodiscard]] Connection* connection() const noexcept;

    /// Writes, unless that is done later anyway.
    void write() noexcept;
    /// The socket takes bytes again. Writes with no lock held.
    void writeMore() noexcept;
    /// As `writeMore`, for the rest of a burst. Returns whether to call it again a moment later.
    [[nodiscard]] bool writeTail(TimePoint now) noexcept;
    /// Moves up to about `size` bytes to the end of `to`. Returns false when there are none.
    [[nodiscard]] bool collect(std::string& to, std::size_t size);

    /// These two throw std::bad_alloc.
    void sendControl(std::string_view text);
    void sendFrames(std::string frames);
    void ping();
    /// Whether so many answers wait that no more questions should be read.
    [[nodiscard]] bool hasManyAnswersWaiting() const noexcept;

    void setSubscriptions(ChannelList&& subscriptions) noexcept;
    [[nodiscard]] ChannelList subscriptions() const;
    enum class Subscribed { kNow, kBefore, kRefused };
    /// Refuses, and does nothing, if there would be more than `most`.
    [[nodiscard]] Subscribed subscribe(std::string_view channel, std::size_t most);
    /// Returns whether it was subscribed.
    bool unsubscribe(std::string_view channel);
    [[nodiscard]] std::vector<std::string> blockChannels() const;

    void acknowledge(std::uint64_t last) noexcept;
    void answer(std::uint64_t transfer, bool hasBlock, PageBlocks& left) noexcept;

    /// Something came from the page. Any thread.
    void heard(TimePoint now) noexcept { fLastSign = now; }
    /// The page is about to publish something: an answer most likely, so that it keeps up and the
    /// next texts are waited for.
    void speaks() noexcept { fHasSpoken = true; }

    /// Why the view has to end, null when it need not.
    [[nodiscard]] const char* failure() const noexcept;
    [[nodiscard]] State state() const noexcept { return fState; }
    /// Whether it counts as a page that is there.
    [[nodiscard]] bool isThere() const noexcept {
        const auto now = state();
        return now == State::kConnected || now == State::kLost;
    }
    [[nodiscard]] bool mayReturn() const noexcept;

    /// Which list of the registry it stands in, and where; the registry's, under its lock.
    struct Place {
        std::list<std::shared_ptr<View>>* in = nullptr;
        std::list<std::shared_ptr<View>>::iterator at;
    };
    [[nodiscard]] Place& place() noexcept { return fPlace; }

    /// What is to be done about a view because time has passed.
    enum class Due { kNothing, kPing, kFail, kSilent, kGone, kEnd };
    /// Looks at what has lasted too long. Late blocks are left.
    [[nodiscard]] Due look(TimePoint now, PageBlocks& left) noexcept;
    /// The view is over: nothing is queued any more, nor kept. REQUIRES: detached.
    void retire(PageBlocks& left) noexcept;
    /// The blocks that `retire` handed over have been told: their bytes no longer count as those
    /// that will be given back soon. Before that somebody else would end for them.
    void blocksLeft() noexcept;

    struct Report {
        State state = State::kConnected;
        std::uint64_t next = 1;
        std::uint64_t acknowledged = 0;
        std::size_t bytes = 0;
        std::size_t blocksUnderWay = 0;
        std::size_t bytesUnderWay = 0;
        std::size_t waiting = 0;
        std::chrono::milliseconds silence{0};
    };
    [[nodiscard]] Report report(TimePoint now) const;

  private:
    void pushLocked(TimePoint now) noexcept REQUIRES_LOCK(fMutex);
    /// Whether a text may have a frame of its own, which is then counted.
    [[nodiscard]] bool mayGoAloneLocked(TimePoint now) noexcept REQUIRES_LOCK(fMutex);
    /// What a publisher writes.
    void writeLocked() noexcept REQUIRES_LOCK(fMutex);
    void failLocked(const char* why) noexcept REQUIRES_LOCK(fMutex);
    void detachLocked(TimePoint now, Fate fate) noexcept REQUIRES_LOCK(fMutex);
    /// What is to be written next: a view that has failed begins no frame any more.
    [[nodiscard]] Outbox::Pending pendingLocked() noexcept REQUIRES_LOCK(fMutex);
    void countNamesLocked() noexcept REQUIRES_LOCK(fMutex);
    void noteHeldLocked() noexcept REQUIRES_LOCK(fMutex);

    const Identity fIdentity;
    const std::shared_ptr<const Context> fContext;
    const Limits& fLimits;
    const std::shared_ptr<Backlog> fBacklog;
    Place fPlace;  ///< guarded by the registry's lock

    std::atomic<TimePoint> fLastSign;
    std::atomic<bool> fHasSpoken{false};  ///< and nothing was published since
    std::atomic<std::size_t> fHeld{0};
    std::atomic<State> fState{State::kNew};  ///< written under the lock

    mutable annotated::Mutex fMutex{annotated::Rank::kView};
    Abilities fAbilities GUARDED_BY(fMutex);
    Outbox fOutbox GUARDED_BY(fMutex);
    Pace fPace GUARDED_BY(fMutex);
    ChannelList fSubscriptions GUARDED_BY(fMutex);
    Charge fNames GUARDED_BY(fMutex);            ///< for the subscriptions
    std::size_t fEnding GUARDED_BY(fMutex) = 0;  ///< what it still holds though it has failed
    const char* fFailure GUARDED_BY(fMutex) = nullptr;

    /// The connection takes itself away before it goes.
    Connection* fConnection GUARDED_BY(fMutex) = nullptr;
    std::shared_ptr<Socket> fSocket GUARDED_BY(fMutex);
    bool fIsDirect GUARDED_BY(fMutex) = false;
    TimePoint fLostAt GUARDED_BY(fMutex);
    bool fIsPinged GUARDED_BY(fMutex) = false;
    /// What the socket had taken at the last look, if that was in the middle of a frame; else 0.
    std::uint64_t fTakenInFrame GUARDED_BY(fMutex) = 0;
    bool fIsWritingLater GUARDED_BY(fMutex) = false;  ///< the gateway's thread does, or will
    bool fIsTailLater GUARDED_BY(fMutex) = false;     ///< the connection will call `writeTail`
    TimePoint fLookedAt GUARDED_BY(fMutex);           ///< at the burst whose tail that is
    TimePoint fSpentUntil GUARDED_BY(fMutex);         ///< on texts with a frame of their own
};

}  // namespace kirogateway
