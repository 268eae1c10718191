#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Counters.hpp"
#include "GuardedLog.hpp"
#include "Page.hpp"
#include "PageMessages.hpp"
#include "annotated/Mutex.hpp"
#include "kirogateway/Gateway.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace kirogateway {

/// All views, between the host's services on one side and the connections on the other.
///
/// Two kinds of threads come here: those that publish, through `messagePublished` and `offer`,
/// and the gateway's own, through everything else. Engine code (the completion of a transfer, a
/// message's subscribers) is called with no lock held.
class Hub final : public relay::Transport {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    Hub(Options options, std::function<void()> wake);

    [[nodiscard]] const Options& options() const noexcept { return fOptions; }
    /// What the gateway itself has to say.
    [[nodiscard]] GuardedLog& log() noexcept { return fLog; }
    /// What peers do, whoever they are: it never keeps the other from being written.
    [[nodiscard]] GuardedLog& peerLog() noexcept { return fPeerLog; }
    [[nodiscard]] Counters& counters() noexcept { return *fCounters; }

    /// Where messages and blocks from pages go. REQUIRES: called before the gateway's thread runs;
    /// both outlive it. `end` may be null: pages send no blocks.
    void connect(relay::TransportLink& link, relay::binary::experimental::ClientEnd* end) noexcept;

    // --- Publishing threads ---

    void messagePublished(const relay::Publication& message) override;
    void offer(relay::binary::experimental::Delivery delivery);

    // --- Any thread ---

    [[nodiscard]] bool lastPageGone() const noexcept { return fLastPageGone; }
    [[nodiscard]] bool isEmpty() const { return pages()->empty(); }
    [[nodiscard]] Statistics statistics() const;
    [[nodiscard]] std::string diagnostics(TimePoint now) const;

    // --- The gateway's thread ---

    /// Makes a view, or lets one go on, and gives it its connection. Empty once `shut` was called.
    std::shared_ptr<Page> welcome(const wire::Hello& hello, const std::shared_ptr<Carrier>& carrier,
                                  int socket, TimePoint now);
    /// The connection ended without a close frame. Ignored if the page has another one by now.
    void lost(const std::shared_ptr<Page>& page, const Carrier& carrier, TimePoint now);
    /// The page closed its connection. Ignored if it has another one by now.
    void left(const std::shared_ptr<Page>& page, const Carrier& carrier);
    /// Ends a view from this side, and its connection, if there is one.
    void dismiss(const std::shared_ptr<Page>& page, wire::CloseCode code, const std::string& why);
    /// Answers whether the page may hear it; it does then.
    [[nodiscard]] bool subscribe(Page& page, std::string_view channel) const;
    /// Answers whether a page may publish on it; it is published then.
    [[nodiscard]] bool publish(const std::string& channel, std::string_view text);
    /// As `publish`, for a block.
    [[nodiscard]] bool publishBlock(const std::string& channel, std::string_view block);
    /// Ends what has lasted too long.
    void tick(TimePoint now);
    /// Ends all views.
    void shut();
    /// Completes transfers.
    static void release(LeavingList leaving);

  private:
    using Pages = std::vector<std::shared_ptr<Page>>;
    struct View {
        std::shared_ptr<Page> page;
        bool isConnected = false;
        bool counts = false;  ///< as a page that is there
        TimePoint lostAt;
        bool isPinged = false;
    };
    struct Ended {
        std::string view;
        std::string why;
    };
    /// What `tick` found to be done.
    struct Due {
        std::vector<std::shared_ptr<Page>> gone;
        std::vector<std::shared_ptr<Page>> over;
        std::vector<std::shared_ptr<Page>> silent;
        std::vector<std::shared_ptr<Page>> toPing;
        std::vector<std::shared_ptr<Page>> toCheck;
    };

    [[nodiscard]] std::shared_ptr<const Pages> pages() const;
    /// The pages, without a lock as long as they stay the same. REQUIRES: the relay's publish
    /// lock is held.
    [[nodiscard]] const Pages& audience();
    [[nodiscard]] std::size_t laneOf(std::string_view channel) const;
    [[nodiscard]] std::shared_ptr<Page> findView(const std::string& view) const;
    [[nodiscard]] std::shared_ptr<Page> resume(const wire::Hello& hello,
                                               const std::shared_ptr<Carrier>& carrier, int socket,
                                               TimePoint now);
    [[nodiscard]] std::shared_ptr<Page> begin(const wire::Hello& hello,
                                              const std::shared_ptr<Carrier>& carrier, int socket,
                                              TimePoint now);
    void announce(const std::string& channel, wire::ViewKind kind, const Page& page);
    /// Takes the view away; its page must be detached.
    void end(const std::shared_ptr<Page>& page, const std::string& why);
    void recordDisconnect(const Page& page, std::string_view why);
    [[nodiscard]] View* findLocked(const Page& page) REQUIRES_LOCK(fMutex);
    void refreshLocked() REQUIRES_LOCK(fMutex);
    /// Answers whether the last page has just gone.
    [[nodiscard]] bool recountLocked() REQUIRES_LOCK(fMutex);
    [[nodiscard]] Due collectDueLocked(TimePoint now) REQUIRES_LOCK(fMutex);
    void wakeIf(bool lastHasGone);

    const Options fOptions;
    const std::function<void()> fWake;
    const ChannelList fMayPublish;
    const ChannelList fMaySubscribe;
    std::vector<ChannelList> fLanes;  ///< constant after construction
    relay::TransportLink* fLink = nullptr;
    relay::binary::experimental::ClientEnd* fEnd = nullptr;

    const std::shared_ptr<Counters> fCounters;
    GuardedLog fLog;
    GuardedLog fPeerLog;
    bool fIsShut = false;  ///< the gateway's thread's
    std::atomic<bool> fLastPageGone{false};

    std::atomic<std::uint64_t> fPagesVersion{0};

    /// Guarded by the relay's publish lock: `fPages` as `audience` saw it last, and which one.
    std::shared_ptr<const Pages> fAudience;
    std::uint64_t fAudienceVersion = 0;

    mutable annotated::Mutex fMutex{annotated::Rank::kViews};
    std::vector<View> fViews GUARDED_BY(fMutex);
    std::shared_ptr<const Pages> fPages GUARDED_BY(fMutex);  ///< those of `fViews`
    std::deque<Ended> fEnded GUARDED_BY(fMutex);             ///< the last few views that ended
    std::uint64_t fViewCount GUARDED_BY(fMutex) = 0;
    bool fAnyWasThere GUARDED_BY(fMutex) = false;
};

}  // namespace kirogateway
