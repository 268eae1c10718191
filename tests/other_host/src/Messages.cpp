// The connection and the message service: one list of subscriptions, one queue, one thread.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "other/Controls.hpp"
#include "other/Fault.hpp"
#include "relay/Relay.hpp"
#include "relay/message_service/MessageService.hpp"

bool other::matches(const std::string& pattern, const std::string& name) {
    const bool isWildcard =
        pattern.size() >= 2 && pattern.compare(pattern.size() - 2, 2, "/*") == 0;
    return isWildcard ? name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0
                      : pattern == name;
}

namespace {

using other::hasFault;
using namespace relay;
using namespace relay::message_service;

struct Member {
    const MessageService* service;
    std::string channel;
    Handler handler;
    std::atomic<bool> isLive = true;
};

struct Message {
    std::string channel;
    Publication::Text text;
    bool hasText;
    std::shared_ptr<const void> ticket;
};

class Bus {
  public:
    /// Never destroyed: its thread lives as long as the process.
    static Bus& instance() {
        static Bus& bus = *new Bus;
        return bus;
    }

    void publish(const Publication& published, bool hasText, std::shared_ptr<const void> ticket,
                 const Transport* except) {
        Message message{published.channel(), published.shared(), hasText, std::move(ticket)};
        if (hasFault("messages-on-the-publishing-thread")) return deliver(message);
        const std::lock_guard publishing(fPublishing);
        {
            const std::lock_guard lock(fMutex);
            if (hasFault("messages-out-of-order")) {
                fQueue.push_front(std::move(message));
            } else if (!hasFault("messages-are-lost")) {
                fQueue.push_back(std::move(message));
            }
            fQueued.notify_all();
        }
        for (const auto& transport : fTransports) {
            if (transport.get() != except && !hasFault("client-hears-nothing")) {
                transport->messagePublished(published);
            }
        }
    }

    void attach(const std::shared_ptr<Transport>& transport) {
        const std::lock_guard publishing(fPublishing);
        fTransports.push_back(transport);
    }
    void detach(const std::shared_ptr<Transport>& transport) {
        const std::lock_guard publishing(fPublishing);
        std::erase(fTransports, transport);
    }
    void add(const std::shared_ptr<Member>& member) {
        const std::lock_guard lock(fMutex);
        fMembers.push_back(member);
    }
    void remove(const std::shared_ptr<Member>& member) {
        if (hasFault("subscriptions-go-on")) return;
        member->isLive = false;
        const std::lock_guard lock(fMutex);
        std::erase(fMembers, member);
    }

  private:
    Bus() {
        std::thread([this] { run(); }).detach();
    }

    void run() {
        for (;;) {
            std::unique_lock lock(fMutex);
            fQueued.wait(lock, [this] { return !fQueue.empty(); });
            const Message message = std::move(fQueue.front());
            fQueue.pop_front();
            lock.unlock();
            deliver(message);
        }
    }

    void deliver(const Message& message) {
        std::unique_lock lock(fMutex);
        const auto members = fMembers;
        lock.unlock();
        std::set<const MessageService*> served;
        for (const auto& member : members) {
            if (!member->isLive || !other::matches(member->channel, message.channel)) continue;
            const bool isFirst = served.insert(member->service).second;
            if (!isFirst && !hasFault("messages-once-per-subscription")) continue;
            const auto& channel =
                hasFault("messages-under-the-pattern") ? member->channel : message.channel;
            try {
                member->handler({channel, message.hasText ? message.text->data() : nullptr,
                                 message.text->size()});
            } catch (...) {  // nobody to tell
            }
        }
    }

    std::mutex fPublishing;
    std::vector<std::shared_ptr<Transport>> fTransports;
    std::mutex fMutex;
    std::condition_variable fQueued;
    std::vector<std::shared_ptr<Member>> fMembers;
    std::deque<Message> fQueue;
};

class Link final : public TransportLink {
  public:
    explicit Link(std::shared_ptr<Transport> transport) : fTransport(std::move(transport)) {
        Bus::instance().attach(fTransport);
    }
    ~Link() override { Bus::instance().detach(fTransport); }
    void deliver(const std::string& channel, Publication::Text text,
                 std::shared_ptr<const void> ticket) override {
        const std::string_view view(*text);
        Bus::instance().publish({channel, view, std::move(text)}, true, std::move(ticket),
                                fTransport.get());
    }

  private:
    const std::shared_ptr<Transport> fTransport;
};

class Connection final : public Relay {
  public:
    std::unique_ptr<TransportLink> attach(std::shared_ptr<Transport> transport) override {
        return std::make_unique<Link>(std::move(transport));
    }
};

class Reception final : public Subscription {
  public:
    explicit Reception(std::shared_ptr<Member> member) : fMember(std::move(member)) {
        Bus::instance().add(fMember);
    }
    ~Reception() override { Bus::instance().remove(fMember); }

  private:
    const std::shared_ptr<Member> fMember;
};

class Service final : public MessageService {
    Future<Published> doPublish(const std::string& channel, const JsonMessage& message) override {
        const bool hasText = message.json != nullptr;
        const std::string_view text = hasText ? std::string_view(message.json, message.length) : "";
        Bus::instance().publish({channel, text}, hasText, nullptr, nullptr);
        return makeReadyFuture(Published{});
    }
    Future<std::shared_ptr<Subscription>> doSubscribe(const std::string& channel,
                                                      Handler handler) override {
        auto member = std::make_shared<Member>(this, channel, std::move(handler));
        return makeReadyFuture<std::shared_ptr<Subscription>>(
            std::make_shared<Reception>(std::move(member)));
    }
};

}  // namespace

namespace relay {

Transport::~Transport() = default;
TransportLink::~TransportLink() = default;
Relay::~Relay() = default;

Relay& getRelay() {
    static Connection connection;
    return connection;
}

namespace message_service {

Subscription::~Subscription() = default;
MessageService::~MessageService() = default;

Future<std::shared_ptr<MessageService>> createMessageService(const std::string& /*name*/,
                                                             const ServiceOptions& /*options*/) {
    return makeReadyFuture<std::shared_ptr<MessageService>>(std::make_shared<Service>());
}

}  // namespace message_service
}  // namespace relay
