#include "relay/Relay.hpp"

#include <algorithm>
#include <mutex>
#include <thread>
#include <utility>

#include "Bus.hpp"
#include "RelayLog.hpp"
#include "TaskQueue.hpp"
#include "checked/Require.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"
#include "process/Thread.hpp"

namespace relay {
namespace {

/// For the precondition of `waitForDelivery`.
thread_local bool tIsDeliveryThread = false;

void waitLocked(std::condition_variable& condition, annotated::Mutex& mutex) REQUIRES_LOCK(mutex) {
    std::unique_lock<std::mutex> lock(mutex.native(), std::adopt_lock);
    condition.wait(lock);
    lock.release();
}

}  // namespace

Bus& Bus::instance() {
    struct StopAtExit {
        explicit StopAtExit(Bus& theBus) noexcept : bus(theBus) {}
        StopAtExit(const StopAtExit&) = delete;
        StopAtExit& operator=(const StopAtExit&) = delete;
        ~StopAtExit() { bus.stop(); }
        Bus& bus;
    };
    static Immortal<Bus> bus;
    static const StopAtExit stopAtExit(*bus);
    return *bus;
}

// --- Publishing --------------------------------------------------------------------------------

void Bus::publish(const Publication& message, bool hasText, std::shared_ptr<const void> ticket,
                  std::uint64_t exceptTransport) {
    bool mustNotify = false;
    {
        annotated::Lock publishing(fPublishMutex);
        // A subscription cannot be missed: one that was there before this call has outdated the
        // route.
        const auto& route = routeLocked(message.channel());
        // Queued before the transports see it, since this may throw: then nobody has the message.
        // The text is copied before `enqueue` locks, so that a large one does not keep the delivery
        // thread waiting.
        if (!route->stops.empty() && !fIsStopped) {
            mustNotify = enqueue({route, message.shared(), hasText, std::move(ticket)});
        }
        for (const auto& attached : fTransports) {
            if (attached.number != exceptTransport) attached.transport->messagePublished(message);
        }
    }
    // After the locks: the woken thread would otherwise run into them at once.
    if (mustNotify) fWork.notify_one();
}

const std::shared_ptr<const Route>& Bus::routeLocked(const std::string& channel) {
    if (fRoutes.size() > kMostRoutes) outdateAllLocked();
    if (fLastRoute != nullptr && fLastRoute->channel == channel) return fLastRoute;
    auto found = fRoutes.find(channel);
    if (found == fRoutes.end()) {
        auto route = makeRoute(channel);
        const std::string_view key = route->channel;
        found = fRoutes.emplace(key, std::move(route)).first;
    }
    return fLastRoute = found->second;
}

void Bus::outdateAllLocked() noexcept {
    fLastRoute = nullptr;
    // Those that messages in the queue share are asked once more.
    for (const auto& [channel, route] : fRoutes) route->isOutdated = true;
    fRoutes.clear();
}

void Bus::outdateLocked(const ChannelPattern& pattern) noexcept {
    if (pattern.isWildcard()) return outdateAllLocked();
    const auto found = fRoutes.find(pattern.text());
    if (found == fRoutes.end()) return;
    if (fLastRoute == found->second) fLastRoute = nullptr;
    const auto route = found->second;  // whose channel is the key
    route->isOutdated = true;
    fRoutes.erase(found);
}

std::shared_ptr<Route> Bus::makeRoute(const std::string& channel) const {
    auto route = std::make_shared<Route>();
    route->channel = channel;
    const annotated::Lock lock(fMutex);
    std::uint64_t after = 0;
    while (const auto subscriber = fSubscribers.next(channel, after, fServices)) {
        after = subscriber->service;
        route->stops.push_back({after, subscriber});
    }
    return route;
}

bool Bus::enqueue(QueuedMessage message) {
    annotated::Lock lock(fMutex);
    fQueue.push_back(std::move(message));
    ++fQueuedCount;
    return std::exchange(fIsIdle, false);
}

std::uint64_t Bus::attach(std::shared_ptr<Transport> transport) {
    annotated::Lock publishing(fPublishMutex);
    fTransports.push_back({fTransportNumber + 1, std::move(transport)});
    return ++fTransportNumber;
}

void Bus::detach(std::uint64_t transport) noexcept {
    std::shared_ptr<Transport> detached;  // released outside the lock: its destructor is foreign
    annotated::Lock publishing(fPublishMutex);
    for (auto attached = fTransports.begin(); attached != fTransports.end(); ++attached) {
        if (attached->number != transport) continue;
        detached = std::move(attached->transport);
        fTransports.erase(attached);
        return;
    }
}

// --- Subscribing -------------------------------------------------------------------------------

std::uint64_t Bus::addService() noexcept { return ++fServices; }

void Bus::subscribe(const std::shared_ptr<Subscriber>& subscriber) {
    annotated::Lock publishing(fPublishMutex);
    annotated::Lock lock(fMutex);
    if (!fIsStarted) startThreadLocked();
    subscriber->age = ++fSubscriberAge;
    fSubscribers.add(subscriber);
    outdateLocked(subscriber->pattern);
}

void Bus::unsubscribe(const Subscriber& subscriber) noexcept {
    annotated::Lock publishing(fPublishMutex);
    annotated::Lock lock(fMutex);
    fSubscribers.remove(subscriber);
    outdateLocked(subscriber.pattern);
}

// --- Delivery ----------------------------------------------------------------------------------

void Bus::startThreadLocked() {
    process::makeThread("messages", [this] { runDelivery(); }).detach();
    fIsStarted = true;
}

void Bus::runDelivery() {
    tIsDeliveryThread = true;
    while (takeBatch()) {
        for (; !fBatch.empty(); countDelivered()) {
            deliver(fBatch.front());
            if (fIsStopped) return;
            fBatch.pop_front();
        }
    }
}

bool Bus::takeBatch() {
    annotated::Lock lock(fMutex);
    while (fQueue.empty() && !fIsStopped) {
        fIsIdle = true;
        waitLocked(fWork, fMutex);
    }
    fBatch.swap(fQueue);
    return !fIsStopped;
}

void Bus::deliver(const QueuedMessage& message) {
    const auto& channel = message.route->channel;
    const auto* text = message.hasText ? message.text->data() : nullptr;
    // A handler that makes a service object and subscribes must not be served for ever.
    const std::uint64_t last = fServices;
    std::uint64_t served = 0;
    while (const auto subscriber = nextCall(message, served, last)) {
        served = subscriber->service;
        try {
            const kirohost::detail::LateWakeup lateWakeup;
            subscriber->handler({channel, text, message.text->size()});
        } catch (...) {
            logCaught("message handler", channel, subscriber->serviceName);
        }
    }
}

std::shared_ptr<const Subscriber> Bus::nextCall(const QueuedMessage& message, std::uint64_t after,
                                                std::uint64_t last) const {
    if (fIsStopped) return nullptr;
    const Route& route = *message.route;
    if (!route.isOutdated) {
        const auto next = std::find_if(route.stops.begin(), route.stops.end(),
                                       [after](const auto& stop) { return stop.service > after; });
        if (next == route.stops.end()) return nullptr;
        if (auto subscriber = next->subscriber.lock()) return subscriber;
        // It went just now, and another one of its service may be the oldest.
    }
    annotated::Lock lock(fMutex);
    return fSubscribers.next(route.channel, after, last);
}

void Bus::countDelivered() {
    const auto count = ++fDeliveredCount;
    if (count < fNextBarrier) return;
    annotated::Lock lock(fMutex);
    fNextBarrier = kNoBarrier;  // who waits for a later one sets it again
    fDelivered.notify_all();
}

void Bus::waitForDelivery() {
    KIROWEB_REQUIRE(!tIsDeliveryThread);
    annotated::Lock lock(fMutex);
    const std::uint64_t queued = fQueuedCount;
    while (fDeliveredCount < queued && !fIsStopped) {
        fNextBarrier = std::min(fNextBarrier.load(), queued);
        // Asked again: the delivery thread may have counted before it could see the barrier.
        if (fDeliveredCount < queued) waitLocked(fDelivered, fMutex);
    }
}

void Bus::stop() noexcept {
    annotated::Lock lock(fMutex);
    fIsStopped = true;
    fWork.notify_all();
    fDelivered.notify_all();
}

// --- The connection ----------------------------------------------------------------------------

namespace {

class BusTransportLink final : public TransportLink {
  public:
    explicit BusTransportLink(std::shared_ptr<Transport> transport)
        : fNumber(Bus::instance().attach(std::move(transport))) {}
    BusTransportLink(const BusTransportLink&) = delete;
    BusTransportLink& operator=(const BusTransportLink&) = delete;
    ~BusTransportLink() override { Bus::instance().detach(fNumber); }

    void deliver(const std::string& channel, Publication::Text text,
                 std::shared_ptr<const void> ticket) override {
        KIROWEB_REQUIRE(text != nullptr);
        const std::string_view view(*text);
        Bus::instance().publish({channel, view, std::move(text)}, true, std::move(ticket), fNumber);
    }

  private:
    const std::uint64_t fNumber;
};

class BusRelay final : public Relay {
  public:
    std::unique_ptr<TransportLink> attach(std::shared_ptr<Transport> transport) override {
        return std::make_unique<BusTransportLink>(std::move(transport));
    }
};

}  // namespace

Transport::~Transport() = default;
TransportLink::~TransportLink() = default;
Relay::~Relay() = default;

Relay& getRelay() {
    static Immortal<BusRelay> relay;
    Bus::instance().connect();
    return *relay;
}

}  // namespace relay

void kirohost::waitForDelivery() { relay::Bus::instance().waitForDelivery(); }
