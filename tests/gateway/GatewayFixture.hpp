#pragma once

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "Peer.hpp"
#include "kirogateway/Gateway.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/message_service/MessageService.hpp"

namespace gatewaytest {

/// What other threads report, and a test waits for.
class Mailbox {
  public:
    void put(std::string what) {
        const std::lock_guard lock(fMutex);
        fItems.push_back(std::move(what));
        fChanged.notify_all();
    }
    std::string take() {
        std::unique_lock lock(fMutex);
        while (fItems.empty()) fChanged.wait(lock);
        auto item = std::move(fItems.front());
        fItems.pop_front();
        return item;
    }

  private:
    std::mutex fMutex;
    std::condition_variable fChanged;
    std::deque<std::string> fItems;
};

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
        fOptions.onLastPageGone = [this] { fEvents.put("last page gone"); };
    }

    void start() {
        listen("/views");
        listen("/returns");
        listen("/up/*");
        fGateway = std::make_unique<kirogateway::Gateway>(fOptions);
        fCookie = fetchCookie(fGateway->port(), fGateway->link(), fLayer);
    }
    /// Messages on `channel` become events, "channel text".
    void listen(const std::string& channel) {
        fSubscriptions.push_back(
            fService
                ->subscribe(channel,
                            [this](const relay::message_service::JsonMessage& message) {
                                fEvents.put(message.channel + " " +
                                            std::string(message.json, message.length));
                            })
                .get());
    }
    void publish(const std::string& channel, std::string_view text) {
        fService->publish(channel, {channel, text.data(), text.size()});
    }
    static relay::common::DataBuffer bufferOf(std::size_t size) {
        auto* bytes = static_cast<char*>(std::malloc(size));
        std::memset(bytes, 'b', size);
        return {bytes, size, size};
    }
    Block sendBlock(std::size_t size) { return fStream->send(bufferOf(size)); }

    /// A peer that has upgraded.
    Peer connect(int receiveBuffer = 0) {
        Peer peer(fGateway->port(), receiveBuffer, fLayer);
        peer.send(upgradeRequest(fGateway->port(), fCookie, {}, fLayer ? "https" : "http"));
        const auto head = peer.readHead();
        EXPECT_TRUE(head.starts_with("HTTP/1.1 101")) << head;
        return peer;
    }
    /// A peer with a view. `more` are further members of its hello.
    Peer join(const std::string& more = {}, int receiveBuffer = 0) {
        auto peer = connect(receiveBuffer);
        peer.sendText(R"({"t":"hello","version":1,"subscribe":["/fig/*","/bin"])" + more + "}");
        fHello = boost::json::parse(peer.readControl("hello")).as_object();
        return peer;
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

    kirogateway::Options fOptions;
    Mailbox fEvents;
    std::shared_ptr<relay::message_service::MessageService> fService;
    std::vector<std::shared_ptr<relay::message_service::Subscription>> fSubscriptions;
    std::shared_ptr<relay::binary::experimental::BinaryStream> fStream =
        relay::binary::experimental::createBinaryStream("/bin", {{"returnOnFail", "true"}});
    std::unique_ptr<kirogateway::Gateway> fGateway;
    std::string fCookie;
    LayerMaker fLayer;  ///< of every peer
    boost::json::object fHello;
};

}  // namespace gatewaytest
