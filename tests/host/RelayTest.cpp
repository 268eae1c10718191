#include "relay/Relay.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kirohost/Controls.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "relay/message_service/MessageService.hpp"

namespace {

using relay::binary::experimental::BinaryStream;
using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::createBinaryStream;
using relay::binary::experimental::Delivery;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;
using relay::message_service::createMessageService;
using relay::message_service::Handler;
using relay::message_service::JsonMessage;
using relay::message_service::MessageService;

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

DataBuffer bufferOf(const std::string& bytes) {
    auto* data = static_cast<char*>(std::malloc(bytes.size()));
    if (data == nullptr) throw std::bad_alloc();
    bytes.copy(data, bytes.size());
    return {data, bytes.size(), bytes.size()};
}

std::string bytesOf(const DataBuffer& buffer) { return {buffer.data(), buffer.size()}; }

/// Writes down what it is handed.
struct RecordingTransport final : relay::Transport {
    void messagePublished(const JsonMessage& message) override { lines.push_back(line(message)); }
    Lines lines;
};

TEST(Transport, SeesTheOrderThatTheSubscribersSeeAndWhatOtherTransportsDeliver) {
    const auto service = makeService();
    const auto transport = std::make_shared<RecordingTransport>();
    const auto other = std::make_shared<RecordingTransport>();
    auto link = relay::getRelay().attach(transport);
    const auto otherLink = relay::getRelay().attach(other);
    Lines heard;
    const auto subscription = service->subscribe("/order/*", into(heard)).get();
    {
        std::vector<std::jthread> publishers;
        for (const char* channel : {"/order/a", "/order/b", "/order/c"}) {
            publishers.emplace_back([&service, channel] {
                for (int i = 0; i < 500; ++i) publish(*service, channel, std::to_string(i));
            });
        }
    }
    kirohost::waitForDelivery();
    EXPECT_EQ(heard.size(), 1500U);
    EXPECT_EQ(transport->lines, heard);
    const std::string channel = "/order/outside";
    otherLink->deliver({channel, "1", 1});
    kirohost::waitForDelivery();
    EXPECT_EQ(heard.back(), "/order/outside 1");
    EXPECT_EQ(transport->lines, heard);
    EXPECT_EQ(other->lines.size(), 1500U) << "it does not hear itself";
    link.reset();
    publish(*service, "/order/a", "after the transport");
    kirohost::waitForDelivery();
    EXPECT_EQ(transport->lines.size(), 1501U);
}

TEST(MessageBus, LogsWhatAHandlerThrowsInOneLineAndGoesOn) {
    Lines logged;
    const auto scope = kirohost::observeLog([&logged](const kirohost::LogRecord& record) {
        if (record.logger == "relay") logged.push_back(record.text);
    });
    const auto service = makeService("named");
    int calls = 0;
    const Handler thrower = [&calls](const JsonMessage&) {
        if (++calls == 1) throw 1;
        throw std::runtime_error("two\nlines " + std::string(199, 'x') + "\xe2\x82\xac");
    };
    const auto subscription = service->subscribe("/throwing\n/*", thrower).get();
    publish(*service, "/throwing\n/", "{}");
    publish(*service, "/throwing\n/", "{}");
    kirohost::waitForDelivery();
    const std::string who =
        R"(The message handler of channel "/throwing\x0a/" in service "named" threw )";
    EXPECT_EQ(logged, (Lines{who + "something that is no std::exception",
                             who + R"("two\x0alines )" + std::string(190, 'x') + "\"..."}));
}

TEST(MessageBus, ServesASubscriptionAddedOrDestroyedDuringTheSameMessageByItsRules) {
    const auto one = makeService();
    const auto two = makeService();
    Lines heard;
    std::shared_ptr<relay::message_service::Subscription> younger =
        two->subscribe("/changing", into(heard)).get();
    std::vector<std::shared_ptr<MessageService>> made;
    std::vector<std::shared_ptr<relay::message_service::Subscription>> kept;
    Handler multiply = [&heard, &made, &kept, &multiply, &younger](const JsonMessage& message) {
        heard.push_back(line(message));
        younger.reset();
        made.push_back(makeService());  // a younger service does not get the same message
        kept.push_back(made.back()->subscribe("/changing", multiply).get());
    };
    const auto subscription = one->subscribe("/changing", multiply).get();
    publish(*one, "/changing", "1");
    kirohost::waitForDelivery();
    EXPECT_EQ(heard, Lines{"/changing 1"});
    publish(*one, "/changing", "2");
    kirohost::waitForDelivery();
    EXPECT_EQ(heard.size(), 3U);
}

/// A client end that keeps what arrives, with the engine's end of the same channel.
struct Ends {
    explicit Ends(const std::string& channel)
        : client(channel, [this](Delivery delivery) { deliveries.push_back(std::move(delivery)); }),
          stream(createBinaryStream(channel, {{"returnOnFail", "true"}})) {}

    std::vector<Delivery> deliveries;
    ClientEnd client;
    std::shared_ptr<BinaryStream> stream;
};

TEST(ClientEnd, KeepsADeliveryReadableBeyondTheStream) {
    Ends ends("/kept");
    Lines completed;
    for (const char* bytes : {"first", "second"}) {
        (void)ends.stream->send(bufferOf(bytes)).then([&completed](auto&& future) {
            completed.push_back(bytesOf(future.get().buffer));
        });
    }
    ends.stream.reset();
    EXPECT_EQ(completed, (Lines{"first", "second"}));
    EXPECT_EQ(bytesOf(ends.deliveries[0].block()), "first");
    EXPECT_EQ(ends.deliveries[1].channel(), "/kept");
    ends.deliveries[0].deliver();
    ends.deliveries.clear();
    EXPECT_EQ(completed.size(), 2U);
}

TEST(ClientEnd, AnswersOnceWhoeverComesFirst) {
    for (int round = 0; round < 50; ++round) {
        Ends ends("/race");
        std::atomic<int> answers{0};
        for (int number = 0; number < 4; ++number) {
            (void)ends.stream->send(bufferOf("block")).then([&answers](auto&& future) {
                (void)future.get();
                ++answers;
            });
        }
        {
            std::jthread deliverer([&ends] {
                for (auto& delivery : ends.deliveries) delivery.deliver();
            });
            std::jthread failer([&ends] {
                for (auto& delivery : ends.deliveries) delivery.fail();
            });
            std::jthread ender([&ends] { ends.stream.reset(); });
        }
        EXPECT_EQ(answers, 4);
    }
}

TEST(ClientEnd, MayAnswerInsideSendEndTheStreamAndDropTheDelivery) {
    std::shared_ptr<BinaryStream> stream = createBinaryStream("/inside", {});
    int blocks = 0;
    const ClientEnd client("/inside", [&stream, &blocks](Delivery delivery) {
        if (++blocks == 1) return delivery.deliver();
        if (blocks == 2) return;
        stream.reset();
        delivery.deliver();
    });
    EXPECT_TRUE(stream->send(bufferOf("1")).get().delivered);
    const auto dropped = stream->send(bufferOf("2")).get();
    EXPECT_FALSE(dropped.delivered);
    EXPECT_TRUE(dropped.buffer.empty()) << "without the option nothing comes back";
    EXPECT_FALSE(stream->send(bufferOf("3")).get().delivered);
}

TEST(ClientEnd, FailsTheBlockWhoseHandlerThrewAndLogsIt) {
    Lines logged;
    const auto scope = kirohost::observeLog(
        [&logged](const kirohost::LogRecord& record) { logged.push_back(record.text); });
    std::optional<Delivery> kept;
    const ClientEnd client("/bad", [&kept](Delivery delivery) {
        kept = std::move(delivery);
        throw std::runtime_error("no");
    });
    const auto stream = createBinaryStream("/bad", {{"returnOnFail", "true"}});
    const auto result = stream->send(bufferOf("block")).get();
    EXPECT_FALSE(result.delivered);
    EXPECT_EQ(bytesOf(result.buffer), "block");
    kept->deliver();
    EXPECT_EQ(logged, Lines{R"(The block handler of channel "/bad" threw "no")"});
}

TEST(ClientEnd, PrefersTheExactNameThenAgeAndEndsWithItsObject) {
    Lines got;
    const auto endNamed = [&got](const std::string& channel, const std::string& name) {
        return std::make_unique<ClientEnd>(channel, [&got, name](Delivery delivery) {
            got.push_back(name + " " + bytesOf(delivery.block()));
            delivery.deliver();
        });
    };
    auto wildcard = endNamed("/ends/*", "wildcard");
    auto exact = endNamed("/ends/a", "exact");
    auto younger = endNamed("/ends/a", "younger");
    const auto stream = createBinaryStream("/ends/a", {});
    for (auto* end : {&exact, &younger, &wildcard}) {
        EXPECT_TRUE(stream->send(bufferOf("block")).get().delivered);
        end->reset();
    }
    EXPECT_FALSE(stream->send(bufferOf("block")).get().delivered);
    EXPECT_EQ(got, (Lines{"exact block", "younger block", "wildcard block"}));
}

TEST(ClientEnd, SendsToEveryStreamOfTheChannel) {
    ClientEnd client("/many/*", [](Delivery) {});
    Lines got;
    const auto one = createBinaryStream("/many/a", {});
    auto two = createBinaryStream("/many/a", {});
    one->receive([&got](DataBuffer&& block) {
        got.push_back("one " + bytesOf(block));
        throw std::runtime_error("the second gets it all the same");
    });
    two->receive([&got](DataBuffer&& block) { got.push_back("two " + bytesOf(block)); });
    client.send("/many/a", bufferOf("1"));
    two.reset();
    client.send("/many/a", bufferOf("2"));
    EXPECT_EQ(got, (Lines{"one 1", "two 1", "one 2"}));
}

// --- Process exit: each runs in a process of its own ---------------------------------------------

class ProcessExit : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

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

TEST_F(ProcessExit, DoesNotWaitForARunningHandler) {
    EXPECT_EXIT(exitWhileAHandlerWaitsForThisThread(), testing::ExitedWithCode(0), "");
}

TEST_F(ProcessExit, IsSafeWithMessagesInFlight) {
    EXPECT_EXIT(exitWhileMessagesFly(), testing::ExitedWithCode(0), "");
}

}  // namespace
