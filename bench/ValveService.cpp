#include "ValveService.hpp"

#include <utility>

#include "relay/Relay.hpp"

namespace bench {

namespace service = relay::message_service;

namespace {

std::shared_ptr<service::MessageService> makeHostService(const std::string& name) {
    relay::getRelay();
    return service::createMessageService(name, {}).get();
}

}  // namespace

ValveService::ValveService()
    : fService(makeHostService("bench")),
      fClient(makeHostService("client")),
      fPublished(relay::makeReadyFuture(service::Published{})) {}

ValveService& ValveService::install() {
    static const auto valve = std::make_shared<ValveService>();
    static const auto scope = kirohost::replaceMessageService([](const std::string& /*name*/) {
        return relay::makeReadyFuture<std::shared_ptr<MessageService>>(valve);
    });
    return *valve;
}

relay::Future<service::Published> ValveService::doPublish(const std::string& channel,
                                                          const service::JsonMessage& message) {
    const auto* const drain = fDrain.load();
    if (drain == nullptr) return fService->publish(channel, message);
    (*drain)(message);
    return relay::Future<service::Published>(fPublished.state());
}

relay::Future<std::shared_ptr<service::Subscription>> ValveService::doSubscribe(
    const std::string& channel, service::Handler handler) {
    return fService->subscribe(channel, std::move(handler));
}

void ValveService::announce(const std::string& channel) {
    const auto ready = channel + "/channelReady";
    fClient->publish(ready, {ready, "{}", 2});
    kirohost::waitForDelivery();
}

}  // namespace bench
