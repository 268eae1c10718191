#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "SubscriberIndex.hpp"
#include "annotated/Mutex.hpp"
#include "relay/Relay.hpp"
#include "relay/message_service/MessageService.hpp"

namespace relay {

/// A queued message. The channel is shared with its neighbours in the queue where it can be, so
/// that a message costs little more than its text.
struct QueuedMessage {
    std::shared_ptr<const std::string> channel;
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

    /// The subscriber's age is set here. Throws std::system_error when the delivery thread cannot
    /// be started.
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
    /// The message in delivery and how far it has come. Belongs to the delivery thread.
    struct Progress {
        QueuedMessage message;
        bool isUnderWay = false;
        std::uint64_t servedService = 0;  ///< the services up to here have had their chance
        std::uint64_t lastService = 0;    ///< the youngest service when the delivery began
    };
    static constexpr std::uint64_t kNoBarrier = std::numeric_limits<std::uint64_t>::max();

    struct AttachedTransport {
        std::uint64_t number;
        std::shared_ptr<Transport> transport;
    };

    [[nodiscard]] bool isHeard(const std::string& channel) const;
    [[nodiscard]] std::shared_ptr<const std::string> channelLocked(const std::string& channel)
        REQUIRES_LOCK(fPublishMutex);
    /// Answers whether the delivery thread has to be notified.
    [[nodiscard]] bool enqueue(QueuedMessage message);
    void startThreadLocked() REQUIRES_LOCK(fMutex);
    void runDelivery();
    /// Blocks for the next call that is due; empty when the process exits.
    std::shared_ptr<const Subscriber> awaitCall(Progress& progress);
    void beginNextLocked(Progress& progress) REQUIRES_LOCK(fMutex);
    void finishLocked(Progress& progress) REQUIRES_LOCK(fMutex);

    std::atomic<bool> fIsConnected{false};
    std::atomic<std::uint64_t> fServices{0};

    /// Makes the order of the queue that of the transports; taken before `fMutex`.
    annotated::Mutex fPublishMutex{annotated::Rank::kPublish};
    std::vector<AttachedTransport> fTransports GUARDED_BY(fPublishMutex);
    std::uint64_t fTransportNumber GUARDED_BY(fPublishMutex) = 0;
    /// The channel of the message that was queued last.
    std::shared_ptr<const std::string> fLastChannel GUARDED_BY(fPublishMutex);

    mutable annotated::Mutex fMutex{annotated::Rank::kBus};
    std::condition_variable fWork;       ///< for the delivery thread alone
    std::condition_variable fDelivered;  ///< for `waitForDelivery`
    SubscriberIndex fSubscribers GUARDED_BY(fMutex);
    std::uint64_t fSubscriberAge GUARDED_BY(fMutex) = 0;
    std::deque<QueuedMessage> fQueue GUARDED_BY(fMutex);
    std::uint64_t fQueuedCount GUARDED_BY(fMutex) = 0;
    std::uint64_t fDeliveredCount GUARDED_BY(fMutex) = 0;
    /// The lowest count of delivered messages that somebody waits for.
    std::uint64_t fNextBarrier GUARDED_BY(fMutex) = kNoBarrier;
    bool fIsStarted GUARDED_BY(fMutex) = false;
    bool fIsIdle GUARDED_BY(fMutex) = false;  ///< the delivery thread waits for `fWork`
    bool fIsStopped GUARDED_BY(fMutex) = false;
};

}  // namespace relay
