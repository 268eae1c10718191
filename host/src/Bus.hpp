#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "SubscriberIndex.hpp"
#include "annotated/Mutex.hpp"
#include "relay/Relay.hpp"
#include "relay/message_service/MessageService.hpp"

namespace relay {

/// Who hears a channel: of each service object its oldest subscription that matches, the services
/// in the order of their creation. A change of the subscriptions that match it makes it outdated,
/// nothing else in it changes.
struct Route {
    struct Stop {
        std::uint64_t service;
        /// Weak, so that what a handler captured goes with its subscription.
        std::weak_ptr<const Subscriber> subscriber;
    };

    std::string channel;
    std::vector<Stop> stops;
    std::atomic<bool> isOutdated = false;
};

/// A queued message. It shares its route, and by that its channel, with its neighbours in the
/// queue, so that a message costs little more than its text.
struct QueuedMessage {
    std::shared_ptr<const Route> route;
    Publication::Text text;
    bool hasText = true;                 ///< an empty text and none differ
    std::shared_ptr<const void> ticket;  ///< let go when the message has been delivered
};

/// The process's message bus: a queue in publish order, the subscriptions, the transports and
/// the delivery thread. Any thread unless it says otherwise. There is one, never destroyed.
///
/// The delivery thread is started by the first subscription and never joined. When the process
/// exits it begins no further call; one that is running is not waited for, since it may itself
/// wait for the thread that exits. What is queued then is dropped.
class Bus {
  public:
    static Bus& instance();

    Bus() = default;
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    /// Queues the message for the subscribers, if there are any, and hands it to the transports
    /// but the one numbered `exceptTransport`. Without `hasText` there is none.
    void publish(const Publication& message, bool hasText, std::shared_ptr<const void> ticket = {},
                 std::uint64_t exceptTransport = 0);

    /// Both may wait for a message that is being published. The subscriber's age is set here.
    /// Throws std::system_error when the delivery thread cannot be started.
    void subscribe(const std::shared_ptr<Subscriber>& subscriber);
    void unsubscribe(const Subscriber& subscriber) noexcept;
    /// The number of a new service object.
    std::uint64_t addService() noexcept;

    /// Whether the connection was asked for, which comes before the first service object.
    void connect() noexcept { fIsConnected = true; }
    [[nodiscard]] bool isConnected() const noexcept { return fIsConnected; }

    /// The attached transport's number, never 0.
    std::uint64_t attach(std::shared_ptr<Transport> transport);
    void detach(std::uint64_t transport) noexcept;

    /// Returns when what was queued before the call has been delivered or the process exits.
    /// REQUIRES: not on the delivery thread.
    void waitForDelivery();

    /// The delivery thread begins no further call.
    void stop() noexcept;

  private:
    static constexpr std::uint64_t kNoBarrier = std::numeric_limits<std::uint64_t>::max();
    /// Beyond this many channels the routes are made afresh: names may come and go for ever.
    static constexpr std::size_t kMostRoutes = 1024;

    struct AttachedTransport {
        std::uint64_t number;
        std::shared_ptr<Transport> transport;
    };

    /// The route of `channel`, which is up to date. Throws std::bad_alloc.
    [[nodiscard]] const std::shared_ptr<const Route>& routeLocked(const std::string& channel)
        REQUIRES_LOCK(fPublishMutex);
    [[nodiscard]] std::shared_ptr<Route> makeRoute(const std::string& channel) const;
    /// Forgets the routes that a subscription to `pattern` belongs to, or might.
    void outdateLocked(const ChannelPattern& pattern) noexcept REQUIRES_LOCK(fPublishMutex);
    void outdateAllLocked() noexcept REQUIRES_LOCK(fPublishMutex);
    /// Answers whether the delivery thread has to be notified.
    [[nodiscard]] bool enqueue(QueuedMessage message);
    void startThreadLocked() REQUIRES_LOCK(fMutex);

    // --- The delivery thread ---

    void runDelivery();
    /// Blocks for messages and takes all that are there; answers false when the process exits.
    [[nodiscard]] bool takeBatch();
    void deliver(const QueuedMessage& message);
    /// Who hears the message next, of the services in (`after`, `last`]. What is decided here
    /// counts as begun: a subscription that is destroyed later is called once more, one destroyed
    /// before is not.
    [[nodiscard]] std::shared_ptr<const Subscriber> nextCall(const QueuedMessage& message,
                                                             std::uint64_t after,
                                                             std::uint64_t last) const;
    void countDelivered();

    std::atomic<bool> fIsConnected{false};
    std::atomic<std::uint64_t> fServices{0};
    std::atomic<bool> fIsStopped{false};  ///< set under `fMutex`, read without it

    /// Makes the order of the queue that of the transports; taken before `fMutex`.
    annotated::Mutex fPublishMutex{annotated::Rank::kPublish};
    std::vector<AttachedTransport> fTransports GUARDED_BY(fPublishMutex);
    std::uint64_t fTransportNumber GUARDED_BY(fPublishMutex) = 0;
    /// None is outdated; by the channel that each of them holds.
    std::unordered_map<std::string_view, std::shared_ptr<Route>> fRoutes GUARDED_BY(fPublishMutex);
    /// The route used last, which is mostly the next one too; empty when it is outdated.
    std::shared_ptr<const Route> fLastRoute GUARDED_BY(fPublishMutex);

    mutable annotated::Mutex fMutex{annotated::Rank::kBus};
    std::condition_variable fWork;       ///< for the delivery thread alone
    std::condition_variable fDelivered;  ///< for `waitForDelivery`
    SubscriberIndex fSubscribers GUARDED_BY(fMutex);
    std::uint64_t fSubscriberAge GUARDED_BY(fMutex) = 0;
    std::deque<QueuedMessage> fQueue GUARDED_BY(fMutex);
    std::uint64_t fQueuedCount GUARDED_BY(fMutex) = 0;
    bool fIsStarted GUARDED_BY(fMutex) = false;
    bool fIsIdle GUARDED_BY(fMutex) = false;  ///< the delivery thread waits for `fWork`

    /// What the delivery thread has taken from the queue and not delivered yet; its own. A member,
    /// so that what is left at the process's exit is dropped without running a foreign destructor.
    std::deque<QueuedMessage> fBatch;
    /// Counted by the delivery thread without a lock. Sequentially consistent, as is the barrier:
    /// of the thread that counts and one that sets a barrier at least one sees the other's value.
    std::atomic<std::uint64_t> fDeliveredCount{0};
    /// The lowest count of delivered messages that somebody waits for; set under `fMutex`.
    std::atomic<std::uint64_t> fNextBarrier{kNoBarrier};
};

}  // namespace relay
