// Library and gateway with whatever host there is: the engine draws for a page on a raw
// socket.

#include <gtest/gtest.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Buffers.hpp"
#include "Peer.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/WebBlockingOperation.hpp"
#include "kirogateway/Gateway.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

namespace {

using namespace kiro::web;
using gatewaytest::Peer;

class AnyHost : public testing::Test {
  protected:
    AnyHost() {
        relay::getRelay();
        kirogateway::Options options;
        options.mayPublish = {"/up/*", "/down/*"};
        options.maySubscribe = {"/down/*"};
        gateway = std::make_unique<kirogateway::Gateway>(std::move(options));
        gatewaytest::Access access;
        access.port = gateway->port();
        page = std::make_unique<Peer>(access);
        page->send(gatewaytest::upgradeRequest(access, gatewaytest::secretOf(gateway->link())));
        EXPECT_TRUE(page->readHead().starts_with("HTTP/1.1 101"));
        page->sendText(R"({"t":"hello","version":1,"subscribe":["/down/*"]})");
        EXPECT_NE(page->readControl("hello"), "");
    }

    void publishFromPage(const std::string& channel, const std::string& text) {
        page->sendText(boost::json::serialize(
            boost::json::object{{"t", "publish"}, {"channel", channel}, {"text", text}}));
    }

    std::unique_ptr<kirogateway::Gateway> gateway;
    std::unique_ptr<Peer> page;
};

TEST_F(AnyHost, DrawsAndFlushesAFigureOnThePage) {
    const auto sender = std::make_shared<BootstrappingCommandSender>("/down/graphics");
    const auto status = std::make_shared<ConnectionStatus>("/up/reconnect", "/up/newView");
    PubSubACTRequestor requestor(sender, "/up/drawn", "test", "web", false);
    JSONPayload line;
    line.addDataToPayload("x", std::vector<double>{0, 1, 2});
    sender->sendCommand("line", std::move(line));
    requestor.sendACT();
    publishFromPage("/down/graphics/channelReady", "{}");
    std::string command;
    std::string token;
    const auto records = page->readRecords(2);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_TRUE(JSONObject(records[0].text).getValue("cmd", command));
    EXPECT_EQ(records[0].channel + " " + command, "/down/graphics line");
    EXPECT_TRUE(JSONObject(records[1].text).getValue("ACT", token));
    EXPECT_TRUE(requestor.isACTPending());
    publishFromPage("/up/drawn", boost::json::serialize(boost::json::object{{"ACT", token}}));
    WebBlockingOperation::waitOrThrow("draw", [&] { return !requestor.isACTPending(); }, status,
                                      {});
}

TEST_F(AnyHost, GivesBlocksBackAndWakesAWaitWhenThePageHasGone) {
    const auto stream =
        relay::binary::experimental::createBinaryStream("/down/blocks", {{"returnOnFail", "true"}});
    auto delivered = stream->send(support::bufferOf("12345678block"));
    EXPECT_TRUE(page->readBinary().ends_with("12345678block"));
    page->sendText(R"({"t":"block","transfer":1,"ok":true})");
    EXPECT_TRUE(delivered.get().delivered);
    auto open = stream->send(support::bufferOf("12345678block"));
    page->readBinary();
    page->sendFrame(8, "\x03\xe8");
    page->readAll();
    const auto result = open.get();
    EXPECT_FALSE(result.delivered);
    EXPECT_EQ(support::bytesOf(result.buffer), "12345678block");
    using kiroutils::KiroTerminatingCondition;
    EXPECT_NO_THROW(kiroutils::KiroBlockingOperation::waitOrThrow(
        std::make_unique<KiroTerminatingCondition>(
            "last page gone", [this] { return gateway->lastPageGone(); }, std::chrono::seconds(30)),
        nullptr));
}

}  // namespace
