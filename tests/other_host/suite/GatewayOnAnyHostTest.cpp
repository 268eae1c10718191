// The gateway with whatever host there is: a page on a raw socket, the engine on the other side.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>

#include "Buffers.hpp"
#include "Peer.hpp"
#include "kirogateway/Gateway.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/message_service/MessageService.hpp"

namespace {

using gatewaytest::Access;
using gatewaytest::Peer;
using relay::message_service::JsonMessage;

/// How a client is let in stands here only: a page that has upgraded.
Peer letIn(const Access& access, const std::string& link) {
    Peer peer(access);
    peer.send(gatewaytest::upgradeRequest(access, gatewaytest::secretOf(link)));
    EXPECT_TRUE(peer.readHead().starts_with("HTTP/1.1 101"));
    return peer;
}

class GatewayOnAnyHost : public testing::Test {
  protected:
    GatewayOnAnyHost() {
        relay::getRelay();
        service = relay::message_service::createMessageService("engine", {}).get();
        kirogateway::Options options;
        options.mayPublish = {"/up/*"};
        options.maySubscribe = {"/down/*"};
        gateway = std::make_unique<kirogateway::Gateway>(std::move(options));
    }

    Peer join() {
        Access access;
        access.port = gateway->port();
        auto peer = letIn(access, gateway->link());
        peer.sendText(R"({"t":"hello","version":1,"subscribe":["/down/*"]})");
        EXPECT_NE(peer.readControl("hello"), "");
        return peer;
    }

    std::shared_ptr<relay::message_service::MessageService> service;
    std::unique_ptr<kirogateway::Gateway> gateway;
};

TEST_F(GatewayOnAnyHost, CarriesTextsToThePageAndBack) {
    auto page = join();
    const std::string text = R"({"cmd":"line"})";
    (void)service->publish("/down/figure", {"/down/figure", text.data(), text.size()});
    const auto records = page.readRecords(1);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].channel + " " + records[0].text, "/down/figure " + text);

    std::promise<std::string> heard;
    const auto subscription =
        service
            ->subscribe("/up/*",
                        [&heard](const JsonMessage& message) {
                            heard.set_value(message.channel + " " +
                                            std::string(message.json, message.length));
                        })
            .get();
    page.sendText(R"({"t":"publish","channel":"/up/drawn","text":"{}"})");
    EXPECT_EQ(heard.get_future().get(), "/up/drawn {}");
}

TEST_F(GatewayOnAnyHost, CarriesBlocksAndGivesThemBackWhenThePageHasGone) {
    auto page = join();
    const auto stream =
        relay::binary::experimental::createBinaryStream("/down/blocks", {{"returnOnFail", "true"}});
    auto delivered = stream->send(support::bufferOf("12345678block"));
    EXPECT_TRUE(page.readBinary().ends_with("12345678block"));
    page.sendText(R"({"t":"block","transfer":1,"ok":true})");
    EXPECT_TRUE(delivered.get().delivered);
    auto open = stream->send(support::bufferOf("12345678block"));
    page.readBinary();
    gateway->stop();
    const auto result = open.get();
    EXPECT_FALSE(result.delivered);
    EXPECT_EQ(support::bytesOf(result.buffer), "12345678block");
}

TEST_F(GatewayOnAnyHost, WakesAWaitWhenTheLastPageHasGone) {
    {
        auto page = join();
        page.sendFrame(8, "\x03\xe8");
        page.readAll();
    }
    using kiroutils::KiroTerminatingCondition;
    EXPECT_NO_THROW(kiroutils::KiroBlockingOperation::waitOrThrow(
        std::make_unique<KiroTerminatingCondition>(
            "last page gone", [this] { return gateway->lastPageGone(); }, std::chrono::seconds(30)),
        nullptr));
}

}  // namespace
