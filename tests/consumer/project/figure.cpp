#include <iostream>

#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiro/web/WebBlockingOperation.hpp"

using namespace kiro::web;

int main() {
    auto pubsub = PubSubFactory::pubsubInstance();
    auto sender = std::make_shared<BootstrappingCommandSender>("/graphics/figure1");
    auto status = std::make_shared<ConnectionStatus>("/figure1/reconnect", "/figure1/newView");
    PubSubACTRequestor requestor(sender, "/figure1/drawn", "README", "web", false);

    // The client: prints each command, and gives a token back once everything before it is drawn.
    auto client =
        subscribe(pubsub, "/graphics/figure1", [pubsub](const auto&, const auto& payload) {
            std::cout << payload.convertToString() << "\n";
            std::string token;
            if (!JSONObject(payload.convertToString()).getValue("ACT", token)) return;
            JSONPayload reply;
            reply.addDataToPayload("ACT", token);
            pubsub->publish("/figure1/drawn", reply);
        });

    JSONPayload line;
    line.addDataToPayload("x", std::vector<double>{0, 1, 2});
    line.addDataToPayload("y", std::vector<double>{0, 1, 4});
    sender->sendCommand("line", std::move(line));  // held back: no client has announced itself

    StringPayload ready("{}");
    pubsub->publish("/graphics/figure1/channelReady", ready);
    requestor.sendACT();
    WebBlockingOperation::waitOrThrow("draw", [&requestor] { return !requestor.isACTPending(); },
                                      status, {});
    std::cout << "drawn\n";
}
