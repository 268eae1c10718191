#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Context.hpp"
#include "Inbound.hpp"
#include "PageMessages.hpp"
#include "View.hpp"
#include "annotated/Mutex.hpp"
#include "kirogateway/Gateway.hpp"

namespace kirogateway {

/// All views: how they come, return and go.
///
/// The gateway's thread changes it; publishing threads look at it, and those that find no room end
/// its views, another gateway's threads among them (`Account`). Engine code (the completion of a
/// transfer, `onLastPageGone`) is called with no lock held. What cannot be undone takes no memory:
/// it cannot fail half way.
class ViewRegistry {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Views = std::vector<std::shared_ptr<View>>;

    /// `lastPageGone` is called on the gateway's thread; what it throws is logged. So many views
    /// were there `before`, of which this registry knows nothing else.
    ViewRegistry(std::shared_ptr<Context> context, std::shared_ptr<Wakeup> wakeup, Inbound& inbound,
                 std::function<void()> lastPageGone, std::uint64_t before = 0);

    // --- Any thread ---

    /// The views that there are; some may be over by now.
    [[nodiscard]] std::shared_ptr<const Views> views() const;
    /// Another number whenever a view or a subscription came or went.
    [[nodiscard]] std::uint64_t version() const noexcept { return fVersion; }
    [[nodiscard]] std::size_t lanes() const noexcept { return fLanes; }
    /// Ends the view that lost its connection first of all that have none; no other is looked at.
    /// Returns whether there was one.
    bool makeLostRoom() noexcept;
    [[nodiscard]] bool lastPageGone() const noexcept { return fLastPageGone; }
    [[nodiscard]] bool isEmpty() const { return views()->empty(); }
    [[nodiscard]] Statistics statistics() const;
    [[nodiscard]] std::string diagnostics(TimePoint now) const;

    // --- The gateway's thread ---

    /// A connection that asks for a view.
    struct Arrival {
        Connection& connection;
        std::shared_ptr<Socket> socket;
        bool isDirect = true;  ///< see `View::attach`
    };
    /// Makes a view, or lets one go on, and gives it its connection. Empty once `shut` was called.
    /// Throws std::bad_alloc and what the operating system's random numbers throw; nothing has
    /// happened then.
    std::shared_ptr<View> welcome(const wire::Hello& hello, Arrival arrival, TimePoint now);
    /// The connection ended without a close frame. Ignored if the view has another one by now.
    void lost(const std::shared_ptr<View>& view, const Connection& connection,
              TimePoint now) noexcept;
    /// The page closed its connection. Ignored if it has another one by now.
    void left(const std::shared_ptr<View>& view, const Connection& connection) noexcept;
    /// Ends a view from this side, and its connection, if there is one.
    void dismiss(const std::shared_ptr<View>& view, wire::CloseCode code,
                 std::string_view why) noexcept;
    /// Returns whether the page may hear `channel`; subscribes it if so. Throws std::bad_alloc.
    [[nodiscard]] bool subscribe(View& view, std::string_view channel);
    void unsubscribe(View& view, std::string_view channel);
    /// Ends what has lasted too long.
    void tick(TimePoint now) noexcept;
    /// Sends all pages that are connected a control text. Throws std::bad_alloc.
    void tell(std::string_view control) const;
    /// Ends all views, for good. `why` is said to their pages.
    void shut(std::string_view why = "gateway stopped",
              wire::CloseCode code = wire::CloseCode::kStopped) noexcept;

  private:
    struct Ended {
        std::string view;
        std::string why;
    };
    using List = std::list<std::shared_ptr<View>>;
    /// All that a view needs to be given its connection.
    struct Prepared {
        View::Greeting greeting;
        ChannelList subscriptions;
    };
    /// While one lives, on the gateway's thread, views that end stay on the list. At its end they
    /// are taken off together and the pages are counted, once for all of them.
    class Batch {
      public:
        explicit Batch(ViewRegistry& registry) noexcept : fRegistry(registry) {
            ++registry.fBatches;
        }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        ~Batch() {
            if (--fRegistry.fBatches == 0) fRegistry.sweep();
        }

      private:
        ViewRegistry& fRegistry;
    };

    [[nodiscard]] std::shared_ptr<View> findView(std::string_view name) const;
    [[nodiscard]] std::shared_ptr<View> resume(const wire::Hello& hello, Arrival& arrival,
                                               TimePoint now);
    [[nodiscard]] std::shared_ptr<View> begin(const wire::Hello& hello, Arrival& arrival,
                                              TimePoint now);
    [[nodiscard]] std::string endedText(const std::string& name) const;
    [[nodiscard]] Prepared prepare(const wire::Hello& hello, wire::Welcome&& welcome,
                                   ChannelList&& subscriptions) const;
    /// Whether a page may hear it.
    [[nodiscard]] bool isAllowed(std::string_view channel) const;
    /// Throws std::bad_alloc; nothing has happened then.
    void addView(const std::shared_ptr<View>& view);
    void afterLoss() noexcept;
    void sweep() noexcept;
    void endSilent(const std::shared_ptr<View>& view, TimePoint now) noexcept;
    void act(const std::shared_ptr<View>& view, TimePoint now);
    /// Takes the view away, at the end of the batch. REQUIRES: its connection has been.
    void end(const std::shared_ptr<View>& view, std::string_view why) noexcept;
    void recordDisconnect(const View& view, std::string_view why) noexcept;
    void noteLost(const std::shared_ptr<View>& view) noexcept;
    /// REQUIRES: the lock of the lists is held.
    static void moveTo(List& to, View& view) noexcept;
    void refreshLocked() noexcept REQUIRES_LOCK(fMutex);
    void rememberLocked(const std::string& name, std::string_view why) noexcept
        REQUIRES_LOCK(fMutex);
    void recount() noexcept;

    const std::shared_ptr<Context> fContext;
    const std::shared_ptr<Wakeup> fWakeup;
    Inbound& fInbound;
    const std::function<void()> fOnLastPageGone;
    const ChannelList fMaySubscribe;
    const std::size_t fLanes;

    std::atomic<bool> fLastPageGone{false};
    std::atomic<std::uint64_t> fVersion{0};
    std::atomic<std::uint64_t> fViewCount;
    bool fIsShut = false;       ///< the gateway's thread's
    bool fAnyWasThere = false;  ///< the gateway's thread's
    // The gateway's thread's, of the batch:
    int fBatches = 0;
    bool fAnyEnded = false;
    bool fAnyIsGone = false;

    mutable annotated::Mutex fMutex{annotated::Rank::kViews};
    Views fViews GUARDED_BY(fMutex);
    // Each view that is not over stands in one of these. It moves with its node, so that to lose
    // a connection and to return take no memory.
    List fOthers GUARDED_BY(fMutex);
    List fLost GUARDED_BY(fMutex);     ///< without a connection, in the order of their losses
    List fFailing GUARDED_BY(fMutex);  ///< of those, the ones that ended to make room
    /// Of `fViews`, for those who look; as it was before if there was no memory for a new one.
    std::shared_ptr<const Views> fSnapshot GUARDED_BY(fMutex);
    bool fIsStale GUARDED_BY(fMutex) = false;
    std::deque<Ended> fEnded GUARDED_BY(fMutex);  ///< the last few views that ended
    /// Until there are no views any more; the last member, since others look at this one then.
    std::optional<Account::Holder> fHolder;
};

}  // namespace kirogateway
