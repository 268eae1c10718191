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

TEST(Transport, SeesTheOrderThatTheSubscribersSee) {
    const auto service = makeService();
    const auto transport = std::make_shared<RecordingTransport>();
    auto link = relay::getRelay().attach(transport);
    Lines heard;
    const auto subscription = service->subscribe("/order/*", into(heard)).get();
    {
        std::vector<std::jthread> publishers;
        for (const char name : {'a', 'b', 'c'}) {
            publishers.emplace_back([&service, name] {
                for (int number = 0; number < 500; ++number) {
                    publish(*service, std::string("/order/") + name, std::to_string(number));
                }
            });
        }
    }
    kirohost::waitForDelivery();
    link.reset();
    publish(*service, "/order/a", "after the transport");
    kirohost::waitForDelivery();
    EXPECT_EQ(heard.size(), 1501U);
    EXPECT_EQ(heard.back(), "/order/a after the transport");
    heard.pop_back();
    EXPECT_EQ(transport->lines, heard);
    for (const char name : {'a', 'b', 'c'}) {
        int next = 0;
        for (const auto& text : heard) {
            if (text[7] != name) continue;
            EXPECT_EQ(text.substr(9), std::to_string(next++));
        }
    }
}

TEST(Transport, DeliversToSubscribersAndToTheOtherTransports) {
    const auto service = makeService();
    const auto one = std::make_shared<RecordingTransport>();
    const auto other = std::make_shared<RecordingTransport>();
    const auto oneLink = relay::getRelay().attach(one);
    const auto otherLink = relay::getRelay().attach(other);
    Lines heard;
    const auto subscription = service->subscribe("/outside", into(heard)).get();
    const std::string channel = "/outside";
    oneLink->deliver({channel, "1", 1});
    kirohost::waitForDelivery();
    EXPECT_EQ(heard, Lines{"/outside 1"});
    EXPECT_EQ(one->lines, Lines{});
    EXPECT_EQ(other->lines, Lines{"/outside 1"});
}

TEST(MessageBus, LogsWhatAHandlerThrowsInOneLineAndGoesOn) {
    Lines logged;
    const auto scope = kirohost::observeLog([&logged](const kirohost::LogRecord& record) {
        if (record.logger == "relay") logged.push_back(record.text);
    });
    const auto service = makeService("named");
    int calls = 0;
    const auto subscription = service
                                  ->subscribe("/throwing\n/*",
                                              [&calls](const JsonMessage&) {
                                                  if (++calls == 1) throw 1;
                                                  std::string what =
                                                      "two\nlines " + std::string(199, 'x');
                                                  throw std::runtime_error(what + "\xe2\x82\xac");
                                              })
                                  .get();
    publish(*service, "/throwing\n/", "{}");
    publish(*service, "/throwing\n/", "{}");
    kirohost::waitForDelivery();
    const std::string who =
        R"(The message handler of channel "/throwing\x0a/" in service "named" threw )";
    EXPECT_EQ(logged, (Lines{who + "something that is no std::exception",
                             who + R"("two\x0alines )" + std::string(190, 'x') + "\"..."}));
}

TEST(MessageBus, CarriesOddChannelsAndAbsentTexts) {
    const auto service = makeService();
    const std::string odd(100000, '*');
    const void* json = &odd;
    Lines heard;
    const auto empty =
        service->subscribe("/absent", [&json](const JsonMessage& message) { json = message.json; })
            .get();
    const auto subscription = service->subscribe(odd, into(heard)).get();
    (void)service->publish("/absent", {"/absent", nullptr, 0});
    publish(*service, odd, "");
    kirohost::waitForDelivery();
    EXPECT_EQ(json, nullptr);
    EXPECT_EQ(heard, Lines{odd + " "});
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

TEST(MessageBus, CanBeReplacedAndComesBack) {
    Lines asked;
    auto older = kirohost::replaceMessageService([&asked](const std::string& name) {
        asked.push_back("older " + name);
        return relay::makeReadyFuture<std::shared_ptr<MessageService>>(nullptr);
    });
    auto younger = kirohost::replaceMessageService([&asked](const std::string& name) {
        asked.push_back("younger " + name);
        return relay::makeReadyFuture<std::shared_ptr<MessageService>>(nullptr);
    });
    EXPECT_EQ(createMessageService("a", {}).get(), nullptr);
    younger = {};
    EXPECT_EQ(createMessageService("b", {}).get(), nullptr);
    EXPECT_EQ(asked, (Lines{"younger a", "older b"}));
    older = {};
    EXPECT_NE(makeService(), nullptr);
}

/// A client end that keeps what arrives, with the engine's end of the same channel.
struct Ends {
    explicit Ends(const std::string& channel, const std::string& returnOnFail = "true")
        : client(channel, [this](Delivery delivery) { deliveries.push_back(std::move(delivery)); }),
          stream(createBinaryStream(channel, {{"returnOnFail", returnOnFail}})) {}

    std::vector<Delivery> deliveries;
    ClientEnd client;
    std::shared_ptr<BinaryStream> stream;
};

TEST(ClientEnd, KeepsADeliveryReadableBeyondTheStream) {
    Ends ends("/kept");
    auto first = ends.stream->send(bufferOf("first"));
    auto second = ends.stream->send(bufferOf("second"));
    Lines completed;
    auto firstDone = first.then([&completed](relay::Future<SendResult>&& future) {
        completed.push_back(bytesOf(future.get().buffer));
    });
    auto secondDone = second.then([&completed](relay::Future<SendResult>&& future) {
        completed.push_back(bytesOf(future.get().buffer));
    });
    const DataBuffer& block = ends.deliveries[0].block();
    ends.stream.reset();
    EXPECT_EQ(completed, (Lines{"first", "second"}));
    EXPECT_EQ(bytesOf(block), "first");
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
    one->receive(nullptr);
    client.send("/many/a", bufferOf("3"));
    client.send("/many/nobody", bufferOf("4"));
    EXPECT_EQ(got, (Lines{"one 1", "two 1", "one 2"}));
}

TEST(BinaryStream, CanBeReplaced) {
    Lines asked;
    auto scope =
        kirohost::replaceBinaryStream([&asked](const std::string& channel, bool returnOnFail) {
            asked.push_back(channel + (returnOnFail ? " back" : " lost"));
            return std::shared_ptr<BinaryStream>();
        });
    EXPECT_EQ(createBinaryStream("/a", {{"returnOnFail", "true"}}), nullptr);
    EXPECT_EQ(createBinaryStream("/b", {{"returnOnFail", "yes"}}), nullptr);
    scope = {};
    EXPECT_NE(createBinaryStream("/c", {}), nullptr);
    EXPECT_EQ(asked, (Lines{"/a back", "/b lost"}));
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
    const auto subscription = service
                                  ->subscribe("/exit",
                                              [&entered, &never, &calls](const JsonMessage&) {
                                                  if (++calls == 1) entered.set_value();
                                                  never.get_future().wait();
                                              })
                                  .get();
    for (int number = 0; number < 1000; ++number) publish(*service, "/exit", "{}");
    entered.get_future().wait();
    std::exit(0);
}

[[noreturn]] void exitWhileMessagesFly() {
    const auto service = makeService();
    std::promise<void> delivered;
    std::atomic<int> calls{0};
    const auto subscription = service
                                  ->subscribe("/exit",
                                              [&service, &delivered, &calls](const JsonMessage&) {
                                                  publish(*service, "/exit", "{}");
                                                  if (++calls == 100) delivered.set_value();
                                              })
                                  .get();
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
