#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <boost/json.hpp>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Buffers.hpp"
#include "Collector.hpp"
#include "Peer.hpp"
#include "kirogateway/Gateway.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/message_service/MessageService.hpp"

namespace gatewaytest {

/// A gateway, the engine on one side of it and peers on the other.
class GatewayTest : public testing::Test {
  protected:
    using SendResult = relay::binary::experimental::SendResult;
    using Block = relay::Future<SendResult>;

    GatewayTest() {
        relay::getRelay();
        fService = relay::message_service::createMessageService("engine", {}).get();
        fOptions.mayPublish = {"/up/*"};
        fOptions.maySubscribe = {"/fig/*", "/bin", "/log"};
        fOptions.newViewChannel = "/views";
        fOptions.reconnectChannel = "/returns";
        fOptions.configuration = R"({"figures":["/fig/1"]})";
        fOptions.assets = {{"/", "text/html; charset=utf-8", "<p>page"}};
        // Nothing ends by itself, unless the test is about that.
        auto& limits = fOptions.limits;
        for (auto* time : {&limits.request, &limits.hello, &limits.queue, &limits.block,
                           &limits.ping, &limits.gone, &limits.comeback, &limits.close}) {
            *time = std::chrono::hours(1);
        }
        fOptions.onLastPageGone = [this] { fEvents.add("last page gone"); };
    }

    void start() {
        for (const char* channel : {"/views", "/returns", "/up/*"}) {
            const auto hear = [this](const relay::message_service::JsonMessage& message) {
                fEvents.add(message.channel + " " + std::string(message.json, message.length));
            };
            fSubscriptions.push_back(fService->subscribe(channel, hear).get());
        }
        fGateway = std::make_unique<kirogateway::Gateway>(fOptions);
        fAccess.port = fGateway->port();
        fToken = secretOf(fGateway->link());
    }
    void publish(const std::string& channel, std::string_view text) {
        fService->publish(channel, {channel, text.data(), text.size()});
    }
    Block sendBlock(std::size_t size) {
        return fStream->send(support::bufferOf(std::string(size, 'b')));
    }

    /// A peer that has upgraded.
    Peer connect() {
        Peer peer(fAccess);
        peer.send(upgradeRequest(fAccess, fToken));
        const auto head = peer.readHead();
        EXPECT_TRUE(head.starts_with("HTTP/1.1 101")) << head;
        return peer;
    }
    /// A peer with a view. `more` are further members of its hello.
    Peer join(const std::string& more = {}) {
        auto peer = connect();
        peer.sendText(R"({"t":"hello","version":1,"subscribe":["/fig/*","/bin"])" + more + "}");
        fHello = boost::json::parse(peer.readFrame().payload).as_object();
        EXPECT_EQ(fHello["t"], "hello") << "comes first";
        fAnnouncement = fEvents.take();
        return peer;
    }
    /// One that comes back for its `view` after the message `last`.
    Peer comeBack(const std::string& view, int last, const std::string& more = {}) {
        return join(R"(,"view":")" + view + R"(","last":)" + std::to_string(last) + more);
    }
    [[nodiscard]] std::string hello(const char* member) const {
        return std::string(fHello.at(member).as_string());
    }
    /// Everything that the peer said before has been acted upon.
    static void settle(Peer& peer) {
        peer.sendText(R"({"t":"echo","id":"settle"})");
        EXPECT_EQ(peer.readControl("echo"), R"({"t":"echo","id":"settle"})");
    }
    static void answer(const Peer& peer, unsigned transfer, bool ok) {
        peer.sendText(R"({"t":"block","transfer":)" + std::to_string(transfer) + R"(,"ok":)" +
                      (ok ? "true}" : "false}"));
    }

    /// Bytes of all that waits.
    std::size_t held() const {
        return boost::json::parse(fGateway->diagnostics()).at("bytesHeld").to_number<std::size_t>();
    }
    std::size_t viewCount() const {
        return boost::json::parse(fGateway->diagnostics()).at("detail").as_array().size();
    }

    kirogateway::Options fOptions;
    support::Collector<std::string> fEvents;  ///< what the engine hears
    std::shared_ptr<relay::message_service::MessageService> fService;
    std::vector<std::shared_ptr<relay::message_service::Subscription>> fSubscriptions;
    std::shared_ptr<relay::binary::experimental::BinaryStream> fStream =
        relay::binary::experimental::createBinaryStream("/bin", {{"returnOnFail", "true"}});
    std::unique_ptr<kirogateway::Gateway> fGateway;
    Access fAccess;
    std::string fToken;
    boost::json::object fHello;  ///< of the last that joined
    std::string fAnnouncement;   ///< of it, to the engine
};

}  // namespace gatewaytest
