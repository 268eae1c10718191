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
using relay::common::DataBuffer;
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

Handler into(Lines& lines) {
    return [&lines](const JsonMessage& message) { lines.push_back(line(message)); };
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
    const auto subscription = service->subscribe("/order/*", into(heard)).get();
    const auto publishAll = [&service](const std::string& channel) {
        for (int i = 0; i < 500; ++i) publish(*service, channel, std::to_string(i));
    };
    std::thread publisher(publishAll, "/order/a");
    publishAll("/order/b");
    publisher.join();
    const std::string channel = "/order/outside";
    auto ticket = std::make_shared<int>();
    const std::weak_ptr<int> underWay = ticket;
    otherLink->deliver(channel, std::make_shared<const std::string>("1"), std::move(ticket));
    kirohost::waitForDelivery();
    EXPECT_TRUE(underWay.expired());
    EXPECT_EQ(heard.size(), 1001U);
    EXPECT_EQ(transport->lines, heard);
    EXPECT_EQ(other->lines.size(), 1000U) << "it does not hear itself";
}

TEST(ClientEnd, AnswersOnceWhoeverComesFirst) {
    for (int round = 0; round < 50; ++round) {
        std::vector<Delivery> deliveries;
        const ClientEnd client("/race", [&deliveries](Delivery delivery) {
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
        }
        EXPECT_EQ(answers, 4);
    }
}

TEST(ClientEnd, MayAnswerInsideSendDropTheDeliveryThrowAndEndTheStream) {
    Lines logged;
    const auto scope = kirohost::observeLog(
        [&logged](const kirohost::LogRecord& record) { logged.push_back(record.text); });
    std::shared_ptr<BinaryStream> stream = createBinaryStream("/in", {{"returnOnFail", "true"}});
    std::optional<Delivery> kept;
    const ClientEnd client("/in", [&stream, &kept](Delivery delivery) {
        const auto what = bytesOf(delivery.block());
        if (what == "deliver") return delivery.deliver();
        if (what == "drop") return;
        kept = std::move(delivery);
        if (what == "throw") throw std::runtime_error("no\nroom " + std::string(300, 'x'));
        stream.reset();
        kept->deliver();
    });
    for (const char* what : {"deliver", "drop", "throw", "end"}) {
        const auto result = stream->send(bufferOf(what)).get();
        EXPECT_EQ(result.delivered, what == std::string("deliver"));
        EXPECT_EQ(bytesOf(result.buffer), result.delivered ? "" : what);
    }
    const auto said = R"(The block handler of channel "/in" threw "no\x0aroom )";
    EXPECT_EQ(logged, Lines{said + std::string(192, 'x') + "\"..."}) << "in one line, cut";
}

// --- Process exit: each runs in a process of its own ---------------------------------------------

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

[[noreturn]] void exitWhileMessagesFly() {
    const auto service = makeService();
    std::promise<void> delivered;
    std::atomic<int> calls{0};
    const Handler handler = [&service, &delivered, &calls](const JsonMessage&) {
        publish(*service, "/exit", "{}");
        if (++calls == 100) delivered.set_value();
    };
    const auto subscription = service->subscribe("/exit", handler).get();
    for (int number = 0; number < 100; ++number) publish(*service, "/exit", "{}");
    std::thread([service] {
        for (;;) publish(*service, "/exit", "{}");
    }).detach();
    delivered.get_future().wait();
    std::exit(0);
}

TEST(ProcessExit, WaitsForNoRunningHandlerAndIsSafeWithMessagesInFlight) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWhileAHandlerWaitsForThisThread(), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(exitWhileMessagesFly(), testing::ExitedWithCode(0), "");
}

}  // namespace
