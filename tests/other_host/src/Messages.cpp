// The connection and the message service: one lock, one list of subscriptions, one queue, one
// thread.

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Channels.hpp"
#include "relay/Relay.hpp"
#include "relay/message_service/MessageService.hpp"

bool other::matches(std::string_view pattern, std::string_view name) {
    if (!pattern.ends_with("/*")) return pattern == name;
    return name.starts_with(pattern.substr(0, pattern.size() - 1));
}

namespace {

using namespace relay;
using namespace relay::message_service;

struct Member final : Subscription {
    Member(const MessageService* theService, std::string theChannel, Handler theHandler)
        : service(theService), channel(std::move(theChannel)), handler(std::move(theHandler)) {}
    const MessageService* const service;
    const std::string channel;
    const Handler handler;
};

struct Message {
    std::string channel;
    Publication::Text text;
    std::shared_ptr<const void> ticket;
};

class Bus final : public Relay {
  public:
    /// Never destroyed: its thread lives as long as the process.
    static Bus& instance() {
        static Bus& bus = *new Bus;
        return bus;
    }

    void publish(const Publication& published, std::shared_ptr<const void> ticket,
                 const Transport* except) {
        Message message{published.channel(), published.shared(), std::move(ticket)};
        const std::lock_guard lock(fMutex);
        fQueue.push_back(std::move(message));
        fQueued.notify_all();
        for (const auto& transport : fTransports) {
            if (transport.get() != except) transport->messagePublished(published);
        }
    }

    std::unique_ptr<TransportLink> attach(std::shared_ptr<Transport> transport) override;
    void detach(const std::shared_ptr<Transport>& transport) {
        const std::lock_guard lock(fMutex);
        std::erase(fTransports, transport);
    }
    void add(const std::shared_ptr<Member>& member) {
        const std::lock_guard lock(fMutex);
        std::erase_if(fMembers, [](const auto& weak) { return weak.expired(); });
        fMembers.push_back(member);
    }

  private:
    Bus() {
        std::thread([this] {
            for (;;) deliverNext();
        }).detach();
    }

    void deliverNext() {
        std::unique_lock lock(fMutex);
        fQueued.wait(lock, [this] { return !fQueue.empty(); });
        const Message message = std::move(fQueue.front());
        fQueue.pop_front();
        const auto members = fMembers;
        lock.unlock();
        std::set<const MessageService*> served;
        for (const auto& weak : members) {
            const auto member = weak.lock();
            if (!member || !other::matches(member->channel, message.channel)) continue;
            if (!served.insert(member->service).second) continue;
            try {
                member->handler({message.channel, message.text->data(), message.text->size()});
            } catch (...) {  // nobody to tell
            }
        }
    }

    std::mutex fMutex;
    std::condition_variable fQueued;
    std::vector<std::shared_ptr<Transport>> fTransports;
    std::vector<std::weak_ptr<Member>> fMembers;
    std::deque<Message> fQueue;
};

class Link final : public TransportLink {
  public:
    explicit Link(std::shared_ptr<Transport> transport) : fTransport(std::move(transport)) {}
    ~Link() override { Bus::instance().detach(fTransport); }
    void deliver(const std::string& channel, Publication::Text text,
                 std::shared_ptr<const void> ticket) override {
        Bus::instance().publish({channel, *text, text}, std::move(ticket), fTransport.get());
    }

  private:
    const std::shared_ptr<Transport> fTransport;
};

std::unique_ptr<TransportLink> Bus::attach(std::shared_ptr<Transport> transport) {
    const std::lock_guard lock(fMutex);
    fTransports.push_back(transport);
    return std::make_unique<Link>(std::move(transport));
}

class Service final : public MessageService {
    Future<Published> doPublish(const std::string& channel, const JsonMessage& message) override {
        const std::string_view text(message.json, message.length);
        Bus::instance().publish({channel, text}, nullptr, nullptr);
        return makeReadyFuture(Published{});
    }
    Future<std::shared_ptr<Subscription>> doSubscribe(const std::string& channel,
                                                      Handler handler) override {
        auto member = std::make_shared<Member>(this, channel, std::move(handler));
        Bus::instance().add(member);
        return makeReadyFuture<std::shared_ptr<Subscription>>(std::move(member));
    }
};

}  // namespace

relay::Transport::~Transport() = default;
relay::TransportLink::~TransportLink() = default;
relay::Relay::~Relay() = default;
relay::Relay& relay::getRelay() { return Bus::instance(); }

relay::message_service::Subscription::~Subscription() = default;
relay::message_service::MessageService::~MessageService() = default;

relay::Future<std::shared_ptr<MessageService>> relay::message_service::createMessageService(
    const std::string& /*name*/, const ServiceOptions& /*options*/) {
    return makeReadyFuture<std::shared_ptr<MessageService>>(std::make_shared<Service>());
}
