// The library with whatever host there is: a figure is drawn and flushed.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiro/web/WebBlockingOperation.hpp"

namespace {

using namespace kiro::web;

TEST(LibraryOnAnyHost, DrawsAndFlushesAFigure) {
    const auto pubsub = PubSubFactory::pubsubInstance();
    const auto sender = std::make_shared<BootstrappingCommandSender>("/graphics/any");
    const auto status = std::make_shared<ConnectionStatus>("/any/reconnect", "/any/newView");
    PubSubACTRequestor requestor(sender, "/any/drawn", "test", "web", false);
    std::vector<std::string> commands;  // of the delivery thread until the token is back
    std::atomic<bool> hasFlushed = false;
    const auto client =
        subscribe(pubsub, "/graphics/any", [&](const auto& /*channel*/, const auto& payload) {
            const JSONObject message(payload.convertToString());
            std::string command;
            std::string token;
            EXPECT_TRUE(message.getValue("cmd", command));
            commands.push_back(command);
            if (!message.getValue("ACT", token)) return;
            hasFlushed = true;
            JSONPayload reply;
            reply.addDataToPayload("ACT", token);
            pubsub->publish("/any/drawn", reply);
        });
    JSONPayload line;
    line.addDataToPayload("x", std::vector<double>{0, 1, 2});
    sender->sendCommand("line", std::move(line));
    EXPECT_FALSE(hasFlushed) << "nobody is ready";
    StringPayload ready("{}");
    pubsub->publish("/graphics/any/channelReady", ready);
    requestor.sendACT();
    WebBlockingOperation::waitOrThrow("draw", [&] { return !requestor.isACTPending(); }, status,
                                      {});
    EXPECT_TRUE(hasFlushed);
    EXPECT_EQ(commands, (std::vector<std::string>{"line", "sendACT"}));
}

}  // namespace
