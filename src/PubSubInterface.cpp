#include "kiro/web/PubSubInterface.hpp"

#include <utility>

#include "checked/Require.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiroutils/EventDispatcher.hpp"

namespace kiro::web {

PubSubInterface::PubSubInterface() : fDispatcher(std::make_unique<kiroutils::EventDispatcher>()) {}

PubSubInterface::~PubSubInterface() = default;

void PubSubInterface::handlePublishCallback(const std::string& channel,
                                            const PayloadInterface& payload) {
    fDispatcher->send(channel, payload);
}

std::unique_ptr<Subscriber> subscribe(std::shared_ptr<PubSubInterface> pubsub,
                                      const std::string& channel,
                                      PubSubInterface::CallbackType callback) {
    KIROWEB_REQUIRE(pubsub != nullptr);
    std::unique_ptr<InternalSubscriberData> data;
    if (pubsub->fDispatcher->numListeners(channel) == 0) {
        // Weak, so that a subscription at the transport never keeps the endpoint alive.
        data = pubsub->doSubscribe(
            channel, [weak = std::weak_ptr<PubSubInterface>(pubsub)](
                         const std::string& arrivedOn, const PayloadInterface& payload) {
                if (const auto endpoint = weak.lock()) {
                    endpoint->handlePublishCallback(arrivedOn, payload);
                }
            });
    }
    auto listener = pubsub->fDispatcher->createListener(
        channel, [callback = std::move(callback)](const std::string& arrivedOn,
                                                  const kiroutils::EventData& eventData) {
            callback(arrivedOn, dynamic_cast<const PayloadInterface&>(eventData));
        });
    return std::make_unique<Subscriber>(std::move(listener), std::move(data));
}

}  // namespace kiro::web
