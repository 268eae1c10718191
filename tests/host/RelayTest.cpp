#include "relay/Relay.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Buffers.hpp"
#include "kirohost/Controls.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "relay/message_service/MessageService.hpp"

namespace {

using namespace relay::binary::experimental;
using namespace relay::message_service;
using support::bufferOf;
using support::bytesOf;

using Lines = std::vector<std::string>;

std::shared_ptr<MessageService> makeService(const std::string& name = "test") {
    relay::getRelay();
    return createMessageService(name, {}).get();
}

void publish(MessageService& service, const std::string& channel, const std::string& text) {
    (void)service.publish(channel, {channel, text.data(), text.size()});
}

std::string line(const JsonMessage& message) {
    return message.channel + " " + std::string(message.json, message.length);
}

/// Writes down what it is handed.
struct RecordingTransport final : relay::Transport {
    void messagePublished(const relay::Publication& message) override {
        lines.push_back(message.channel() + " " + std::string(message.text()));
    }
    Lines lines;
};

TEST(Transport, SeesTheOrderThatTheSubscribersSeeAndWhatOtherTransportsDeliver) {
    const auto service = makeService();
    const auto transport = std::make_shared<RecordingTransport>();
    const auto other = std::make_shared<RecordingTransport>();
    const auto link = relay::getRelay().attach(transport);
    const auto otherLink = relay::getRelay().attach(other);
    Lines heard;
    const Handler hear = [&heard](const JsonMessage& message) { heard.push_back(line(message)); };
    const auto subscription = service->subscribe("/order/*", hear).get();
    const auto publishAll = [&service](const std::string& channel) {
        for (int i = 0; i < 500; ++i) publish(*service, channel, std::to_string(i));
    };
    std::thread publisher(publishAll, "/order/a");
    publishAll("/order/b");
    publisher.join();
    auto ticket = std::make_shared<int>();
    const std::weak_ptr<int> underWay = ticket;
    otherLink->deliver("/order/outside", std::make_shared<const std::string>("1"),
                       std::move(ticket));
    kirohost::waitForDelivery();
    EXPECT_TRUE(underWay.expired());
    EXPECT_EQ(heard.size(), 1001U);
    EXPECT_EQ(transport->lines, heard);
    EXPECT_EQ(other->lines.size(), 1000U) << "it does not hear itself";
}

TEST(ClientEnd, AnswersOnceWhoeverComesFirst) {
    for (int round = 0; round < 50; ++round) {
        std::vector<Delivery> deliveries;
        std::optional<ClientEnd> client(std::in_place, "/race", [&deliveries](Delivery delivery) {
            deliveries.push_back(std::move(delivery));
        });
        auto stream = createBinaryStream("/race", {{"returnOnFail", "true"}});
        std::atomic<int> answers{0};
        for (int number = 0; number < 4; ++number) {
            (void)stream->send(bufferOf("block")).then([&answers](auto&& future) {
                (void)future.get();
                ++answers;
            });
        }
        {
            std::jthread deliverer([&deliveries] {
                for (auto& delivery : deliveries) delivery.deliver();
            });
            std::jthread failer([&deliveries] {
                for (auto& delivery : deliveries) delivery.fail();
            });
            std::jthread ender([&stream] { stream.reset(); });
            std::jthread leaver([&client] { client.reset(); });
        }
        EXPECT_EQ(answers, 4);
    }
}

TEST(ClientEnd, MayAnswerInsideSendDropTheDeliveryThrowAndEndTheStream) {
    std::shared_ptr<BinaryStream> stream = createBinaryStream("/in", {{"returnOnFail", "true"}});
    std::optional<Delivery> kept;
    const ClientEnd client("/in", [&stream, &kept](Delivery delivery) {
        const auto what = bytesOf(delivery.block());
        if (what == "deliver") return delivery.deliver();
        if (what == "drop") return;
        kept = std::move(delivery);
        if (what == "throw") throw std::runtime_error(what);
        stream.reset();
        kept->deliver();
    });
    for (const char* what : {"deliver", "drop", "throw", "end"}) {
        const auto result = stream->send(bufferOf(what)).get();
        EXPECT_EQ(result.delivered, what == std::string("deliver"));
        EXPECT_EQ(bytesOf(result.buffer), result.delivered ? "" : what);
    }
}

// A completion may keep the stream, as the library's do: then its own destructor answers nothing.
TEST(OpenBlocks, CompleteWhenTheirClientEndOrTheirInterpreterGoes) {
    std::vector<Delivery> kept;
    const auto keep = [&kept](Delivery delivery) { kept.push_back(std::move(delivery)); };
    std::optional<ClientEnd> end(std::in_place, "/open", keep);
    const ClientEnd stays("/open/stays", keep);
    std::optional<kirohost::Vm> vm(std::in_place);
    const auto open = [](const std::string& channel) {
        return createBinaryStream(channel, {{"returnOnFail", "true"}});
    };
    const auto ofMain = open("/open");
    const auto ofVm = [&] {
        const auto binding = vm->bindThisThread();
        return open("/open/stays");
    }();
    Lines answers;
    const auto send = [&answers](const std::shared_ptr<BinaryStream>& stream, const char* what) {
        (void)stream->send(bufferOf(what)).then([&answers, stream](auto&& future) {
            const auto result = future.get();
            answers.push_back(bytesOf(result.buffer) + (result.delivered ? " delivered" : ""));
        });
    };
    send(ofMain, "1");
    send(ofVm, "3");
    EXPECT_EQ(answers, Lines());
    end.reset();
    EXPECT_EQ(answers, Lines{"1"});
    vm.reset();
    send(ofVm, "4");
    EXPECT_EQ(answers, (Lines{"1", "3", "4"}));
    ASSERT_EQ(kept.size(), 2U) << "a stream whose interpreter has gone sends nothing";
    EXPECT_EQ(bytesOf(kept[0].block()), "1") << "the client may go on reading";
    for (auto& delivery : kept) delivery.deliver();
    EXPECT_EQ(answers.size(), 3U) << "once each";
    std::weak_ptr<BinaryStream> alive = ofVm;
    EXPECT_EQ(alive.use_count(), 1) << "nothing keeps what is answered";
}

[[noreturn]] void exitWhileAHandlerWaitsForThisThread() {
    // Runs after the bus has stopped: nothing more is delivered and nobody waits for it.
    std::atexit([] {
        publish(*makeService(), "/exit", "{}");
        kirohost::waitForDelivery();
    });
    const auto service = makeService();
    std::promise<void> entered;
    std::promise<void> never;
    int calls = 0;
    const Handler handler = [&entered, &never, &calls](const JsonMessage&) {
        if (++calls == 1) entered.set_value();
        never.get_future().wait();
    };
    const auto subscription = service->subscribe("/exit", handler).get();
    for (int number = 0; number < 1000; ++number) publish(*service, "/exit", "{}");
    entered.get_future().wait();
    std::exit(0);
}

TEST(ProcessExit, WaitsForNoRunningHandler) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWhileAHandlerWaitsForThisThread(), testing::ExitedWithCode(0), "");
}

}  // namespace
