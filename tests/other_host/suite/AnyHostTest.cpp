// Library and gateway with whatever host there is: the engine draws for a page on a raw
// socket.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "GatewayFixture.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/WebBlockingOperation.hpp"

namespace {

using namespace kiro::web;
using AnyHost = gatewaytest::GatewayTest;

TEST_F(AnyHost, DrawsAndFlushesAFigureOnThePage) {
    fOptions.mayPublish.push_back("/fig/*");
    start();
    auto page = join();
    const auto say = [&page](const std::string& channel, const std::string& text) {
        page.sendText(boost::json::serialize(
            boost::json::object{{"t", "publish"}, {"channel", channel}, {"text", text}}));
    };
    const auto sender = std::make_shared<BootstrappingCommandSender>("/fig/1");
    const auto status = std::make_shared<ConnectionStatus>("/returns", "/views");
    PubSubACTRequestor requestor(sender, "/up/drawn", "test", "web", false);
    JSONPayload line;
    line.addDataToPayload("x", std::vector<double>{0, 1, 2});
    sender->sendCommand("line", std::move(line));
    requestor.sendACT();
    say("/fig/1/channelReady", "{}");
    std::string command;
    std::string token;
    const auto records = page.readRecords(2);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_TRUE(JSONObject(records[0].text).getValue("cmd", command));
    EXPECT_EQ(records[0].channel + " " + command, "/fig/1 line");
    EXPECT_TRUE(JSONObject(records[1].text).getValue("ACT", token));
    EXPECT_TRUE(requestor.isACTPending());
    say("/up/drawn", R"({"ACT":")" + token + "\"}");
    WebBlockingOperation::waitOrThrow("draw", [&] { return !requestor.isACTPending(); }, status,
                                      {});
}

}  // namespace
