#include "relay/Relay.hpp"

#include <algorithm>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "Bus.hpp"
#include "RelayLog.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace relay {
namespace {

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
        // Asked first and copied between the two short locks, so that a large text does not keep
        // the delivery thread waiting. A subscription cannot be missed: one that was there before
        // this call is seen here.
        std::optional<QueuedMessage> queued;
        if (isHeard(message.channel())) {
            queued = {channelLocked(message.channel()), message.shared(), hasText,
                      std::move(ticket)};
        }
        for (const auto& attached : fTransports) {
            if (attached.number != exceptTransport) attached.transport->messagePublished(message);
        }
        if (queued) mustNotify = enqueue(*std::move(queued));
    }
    // After the locks: the woken thread would otherwise run into them at once.
    if (mustNotify) fWork.notify_one();
}

bool Bus::isHeard(const std::string& channel) const {
    annotated::Lock lock(fMutex);
    return !fIsStopped && fSubscribers.hears(channel);
}

std::shared_ptr<const std::string> Bus::channelLocked(const std::string& channel) {
    if (fLastChannel == nullptr || *fLastChannel != channel) {
        fLastChannel = std::make_shared<const std::string>(channel);
    }
    return fLastChannel;
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
    annotated::Lock lock(fMutex);
    if (!fIsStarted) startThreadLocked();
    subscriber->age = ++fSubscriberAge;
    fSubscribers.add(subscriber);
}

void Bus::unsubscribe(const Subscriber& subscriber) noexcept {
    annotated::Lock lock(fMutex);
    fSubscribers.remove(subscriber);
}

// --- Delivery ----------------------------------------------------------------------------------

void Bus::startThreadLocked() {
    std::thread([this] { runDelivery(); }).detach();
    fIsStarted = true;
}

void Bus::runDelivery() {
    Progress progress;
    while (const auto subscriber = awaitCall(progress)) {
        const auto& message = progress.message;
        const auto* text = message.hasText ? message.text->data() : nullptr;
        try {
            subscriber->handler({*message.channel, text, message.text->size()});
        } catch (...) {
            logCaught("message handler", *message.channel, subscriber->serviceName);
        }
    }
}

std::shared_ptr<const Subscriber> Bus::awaitCall(Progress& progress) {
    annotated::Lock lock(fMutex);
    // What is decided under the lock counts as begun: a subscription that is destroyed from here
    // on is called once more, one destroyed before is not.
    while (!fIsStopped) {
        if (progress.isUnderWay) {
            auto subscriber = fSubscribers.next(*progress.message.channel, progress.servedService,
                                                progress.lastService);
            if (subscriber != nullptr) {
                progress.servedService = subscriber->service;
                return subscriber;
            }
            finishLocked(progress);
        } else if (!fQueue.empty()) {
            beginNextLocked(progress);
        } else {
            fIsIdle = true;
            waitLocked(fWork, fMutex);
        }
    }
    return nullptr;
}

void Bus::beginNextLocked(Progress& progress) {
    progress.message = std::move(fQueue.front());
    fQueue.pop_front();
    progress.isUnderWay = true;
    progress.servedService = 0;
    // A handler that makes a service object and subscribes must not be served for ever.
    progress.lastService = fServices;
}

void Bus::finishLocked(Progress& progress) {
    progress.message = {};
    progress.isUnderWay = false;
    ++fDeliveredCount;
    if (fDeliveredCount != fNextBarrier) return;
    fNextBarrier = kNoBarrier;  // who waits for a later one sets it again
    fDelivered.notify_all();
}

void Bus::waitForDelivery() {
    annotated::Lock lock(fMutex);
    const std::uint64_t queued = fQueuedCount;
    while (fDeliveredCount < queued && !fIsStopped) {
        fNextBarrier = std::min(fNextBarrier, queued);
        waitLocked(fDelivered, fMutex);
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
