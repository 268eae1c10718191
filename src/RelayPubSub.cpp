#include "kiro/web/RelayPubSub.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "CHeap.hpp"
#include "FixedAssertion.hpp"
#include "RelayFuture.hpp"
#include "kiro/web/StringPayload.hpp"
#include "relay/Relay.hpp"
#include "relay/message_service/MessageService.hpp"

namespace kiro::web {

namespace service = relay::message_service;

namespace {

class RelayInternalSubscriberData : public InternalSubscriberData {
  public:
    explicit RelayInternalSubscriberData(std::shared_ptr<service::Subscription> subscription)
        : fSubscription(std::move(subscription)) {}

  private:
    std::shared_ptr<service::Subscription> fSubscription;
};

/// On the service's delivery thread.
void handleMessage(const service::JsonMessage& msg, const PubSubInterface::CallbackType& callback) {
    assertAt({"src/RelayPubSub", 59,
              "kiro::web::RelayPubSub::doSubscribe(const string&, "
              "kiro::web::PubSubInterface::CallbackType)::<lambda(const JsonMessage&)>"},
             msg.json != nullptr, "msg.json != nullptr");
    auto text = msg.json != nullptr ? std::string(msg.json, msg.length) : std::string();
    callback(msg.channel, StringPayload(std::move(text)));
}

}  // namespace

struct RelayPubSub::Impl {
    Impl() {
        relay::getRelay();
        fMessageService =
            RelayFuture(service::createMessageService("kiroweb", {}), "create message service")
                .wait();
        assertAt({"src/RelayPubSub", 34, "kiro::web::RelayPubSub::Impl::Impl()"},
                 fMessageService != nullptr, "fMessageService != nullptr");
        if (fMessageService == nullptr) {
            // Where the host goes on, there is still no endpoint; the next call may have one.
            throw std::runtime_error("the host's message service is missing");
        }
    }

    std::shared_ptr<service::MessageService> fMessageService;
};

RelayPubSub::RelayPubSub() : fImpl(std::make_unique<Impl>()) {}

RelayPubSub::~RelayPubSub() = default;

void RelayPubSub::doPublish(const std::string& channel, PayloadInterface& payload) {
    const auto text = payload.convertToString();
    // Its own copy in the C heap, whose lack is what the caller hears of as "Out of memory!".
    const auto buffer = allocateBytes(text.size());
    std::copy(text.begin(), text.end(), buffer.get());
    // The future is dropped: publishing never waits.
    fImpl->fMessageService->publish(channel, {channel, buffer.get(), text.size()});
}

std::unique_ptr<InternalSubscriberData> RelayPubSub::doSubscribe(const std::string& channel,
                                                                 CallbackType callback) {
    auto future = fImpl->fMessageService->subscribe(
        channel, [callback = std::move(callback)](const service::JsonMessage& msg) {
            handleMessage(msg, callback);
        });
    return std::make_unique<RelayInternalSubscriberData>(
        RelayFuture(std::move(future), "subscribe: " + channel).wait());
}

}  // namespace kiro::web
