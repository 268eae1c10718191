// A program as a user of the installed library writes it: an engine sends one command, and a
// client in the same process receives it.
#include <future>
#include <iostream>
#include <string>
#include <utility>

#include "kiro/Version.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kirohost/Controls.hpp"

int main() {
    using namespace kiro::web;
    std::promise<std::string> received;
    const auto pubsub = PubSubFactory::pubsubInstance();
    const auto client = subscribe(pubsub, "/figure",
                                  [&received](const std::string&, const PayloadInterface& payload) {
                                      received.set_value(payload.convertToString());
                                  });

    BootstrappingCommandSender engine("/figure");
    JSONPayload line;
    line.addDataToPayload("color", std::string("red"));
    engine.sendCommand("drawLine", std::move(line));

    StringPayload ready(R"({"binaryChannelStatus": false, "useFastBinary": false})");
    pubsub->publish("/figure/channelReady", ready);

    const JSONObject message(received.get_future().get());
    kirohost::waitForDelivery();
    std::string command;
    std::string color;
    const bool complete = message.getValue("cmd", command) && message.getValue("color", color);
    std::cout << "kiroweb " << KIROWEB_VERSION << ": " << command << " in " << color << '\n';
    return complete && command == "drawLine" && color == "red" ? 0 : 1;
}
