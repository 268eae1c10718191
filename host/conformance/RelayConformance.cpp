// What the library relies on in the host's messaging: order, threads, wildcards, lifetimes and
// the streams' answers.

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "HostAdapter.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/message_service/MessageService.hpp"

namespace {

using relay::binary::experimental::BinaryStream;
using relay::binary::experimental::createBinaryStream;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;
using relay::message_service::JsonMessage;
using relay::message_service::MessageService;
using relay::message_service::Subscription;

using Lines = std::vector<std::string>;

std::shared_ptr<MessageService> makeService() {
    relay::getRelay();
    return relay::message_service::createMessageService("conformance", {}).get();
}

void publish(MessageService& service, const std::string& channel, const std::string& text) {
    (void)service.publish(channel, {channel, text.data(), text.size()});
}

std::string line(const JsonMessage& message) {
    return message.channel + " " + std::string(message.json, message.length);
}

/// A service object whose handlers write down what they hear.
class Endpoint {
  public:
    std::shared_ptr<Subscription> hear(const std::string& channel) {
        return service
            ->subscribe(channel,
                        [this](const JsonMessage& message) {
                            std::lock_guard lock(fMutex);
                            fHeard.push_back(line(message));
                        })
            .get();
    }

    /// What was heard up to now: a message of this thread arrives after its earlier ones.
    Lines heard() {
        static int last = 0;
        const auto arrived = std::make_shared<std::promise<void>>();
        // A name that no wildcard of the tests takes away, and a text that is this call's own: the
        // message of an earlier one may be on its way to further services yet.
        const auto text = std::to_string(++last);
        const auto end = service
                             ->subscribe("end of conformance",
                                         [arrived, text](const JsonMessage& message) {
                                             if (line(message).ends_with(" " + text)) {
                                                 arrived->set_value();
                                             }
                                         })
                             .get();
        publish(*service, "end of conformance", text);
        arrived->get_future().wait();
        std::lock_guard lock(fMutex);
        return fHeard;
    }

    const std::shared_ptr<MessageService> service = makeService();

  private:
    std::mutex fMutex;
    Lines fHeard;
};

TEST(RelayMessages, ArriveInOrderWithTheirExactTextOnAnotherThread) {
    Endpoint endpoint;
    const auto subscription = endpoint.hear("/conformance/a");
    std::promise<std::thread::id> deliveryThread;
    const auto probe = endpoint.service
                           ->subscribe("/conformance/thread",
                                       [&deliveryThread](const JsonMessage&) {
                                           deliveryThread.set_value(std::this_thread::get_id());
                                       })
                           .get();
    Lines expected;
    for (int number = 0; number < 1000; ++number) {
        publish(*endpoint.service, "/conformance/a", std::to_string(number));
        expected.push_back("/conformance/a " + std::to_string(number));
    }
    const std::string text = std::string("{\"a\":\"\0\"}", 9) + "\xe2\x82\xac";
    publish(*endpoint.service, "/conformance/a", text);
    expected.push_back("/conformance/a " + text);
    publish(*endpoint.service, "/conformance/thread", "{}");
    EXPECT_EQ(endpoint.heard(), expected);
    EXPECT_NE(deliveryThread.get_future().get(), std::this_thread::get_id());
}

TEST(RelayMessages, OnlyAFinalSlashStarIsAWildcard) {
    struct Case {
        std::string subscribed;
        std::string published;
        bool isHeard;
    };
    const Case cases[] = {
        {"/c/*", "/c/a", true},  {"/c/*", "/c/a/b", true},
        {"/c/*", "/c/", true},   {"/c/*", "/c/*", true},
        {"/c/*", "/c", false},   {"/c/*", "/ca", false},
        {"/c*", "/ca", false},   {"/c*", "/c*", true},
        {"/*/a", "/b/a", false}, {"*", "a", false},
        {"/*", "/a", true},      {"/*", "a", false},
        {"", "", true},          {"", "a", false},
        {"/c/a", "/c/a", true},  {"/c/a", "/c/a/b", false},
        {"/C/a", "/c/a", false}, {"/c/**", "/c/*", false},
    };
    for (const auto& [subscribed, published, isHeard] : cases) {
        Endpoint endpoint;
        const auto subscription = endpoint.hear(subscribed);
        publish(*endpoint.service, published, "1");
        EXPECT_EQ(endpoint.heard(), isHeard ? Lines{published + " 1"} : Lines{})
            << '"' << subscribed << "\" and \"" << published << '"';
    }
}

TEST(RelayMessages, AServiceObjectHearsAMessageOnceHoweverManySubscriptionsMatch) {
    Endpoint one;
    Endpoint other;
    auto wildcard = one.hear("/conformance/c/*");
    const auto exact = one.hear("/conformance/c/a");
    const auto elsewhere = other.hear("/conformance/c/a");
    const Lines first{"/conformance/c/a 1"};
    const Lines both{"/conformance/c/a 1", "/conformance/c/a 2"};
    publish(*one.service, "/conformance/c/a", "1");
    EXPECT_EQ(one.heard(), first);
    wildcard.reset();
    publish(*one.service, "/conformance/c/a", "2");
    EXPECT_EQ(one.heard(), both);
    EXPECT_EQ(other.heard(), both);
}

TEST(RelayMessages, AreHeardFromTheSubscriptionOnAndUntilItsEnd) {
    Endpoint endpoint;
    for (const char* text : {"1", "2"}) {
        publish(*endpoint.service, "/conformance/b", "nobody");
        endpoint.heard();  // a message that is under way may still reach a new subscription
        const auto subscription = endpoint.hear("/conformance/b");
        publish(*endpoint.service, "/conformance/b", text);
        endpoint.heard();
    }
    publish(*endpoint.service, "/conformance/b", "nobody");
    EXPECT_EQ(endpoint.heard(), (Lines{"/conformance/b 1", "/conformance/b 2"}));
}

TEST(RelayMessages, AHandlerMayPublishSubscribeDestroyItselfAndThrow) {
    Endpoint endpoint;
    std::shared_ptr<Subscription> own;
    std::shared_ptr<Subscription> made;
    own = endpoint.service
              ->subscribe("/conformance/d",
                          [&endpoint, &own, &made](const JsonMessage&) {
                              made = endpoint.hear("/conformance/answer");
                              publish(*endpoint.service, "/conformance/answer", "1");
                              own.reset();
                              throw std::runtime_error("thrown on purpose");
                          })
              .get();
    publish(*endpoint.service, "/conformance/d", "{}");
    publish(*endpoint.service, "/conformance/d", "{}");
    endpoint.heard();
    EXPECT_EQ(endpoint.heard(), Lines{"/conformance/answer 1"});
    EXPECT_EQ(own, nullptr);
}

TEST(RelayMessages, ASubscriptionDestroyedWhileItsHandlerRunsIsNotWaitedForAndEnds) {
    Endpoint endpoint;
    std::promise<void> entered;
    std::promise<void> leave;
    int calls = 0;
    auto subscription = endpoint.service
                            ->subscribe("/conformance/e",
                                        [&calls, &entered, &leave](const JsonMessage&) {
                                            ++calls;
                                            entered.set_value();
                                            leave.get_future().wait();
                                        })
                            .get();
    publish(*endpoint.service, "/conformance/e", "{}");
    publish(*endpoint.service, "/conformance/e", "{}");  // must not wait for the slow handler
    entered.get_future().wait();
    subscription.reset();
    leave.set_value();
    endpoint.heard();
    EXPECT_EQ(calls, 1);
}

TEST(RelayMessages, ReachTheClientInOrderAndComeFromIt) {
    Endpoint endpoint;
    std::promise<Lines> atClient;
    Lines arrived;
    const auto listener =
        conformance::listenAsClient([&arrived, &atClient](const auto& channel, const auto& text) {
            if (!channel.starts_with("/conformance/toClient")) return;
            arrived.push_back(channel + " " + text);
            if (arrived.size() == 3) atClient.set_value(arrived);
        });
    publish(*endpoint.service, "/conformance/toClient", "1");
    publish(*endpoint.service, "/conformance/toClient/b", "2");
    publish(*endpoint.service, "/conformance/toClient", "3");
    EXPECT_EQ(
        atClient.get_future().get(),
        (Lines{"/conformance/toClient 1", "/conformance/toClient/b 2", "/conformance/toClient 3"}));

    const auto atEngine = std::make_shared<std::promise<std::string>>();
    const auto fromClient = endpoint.service
                                ->subscribe("/conformance/reply",
                                            [atEngine](const JsonMessage& message) {
                                                atEngine->set_value(line(message));
                                            })
                                .get();
    conformance::publishAsClient("/conformance/reply", "{\"token\":1}");
    EXPECT_EQ(atEngine->get_future().get(), "/conformance/reply {\"token\":1}");
}

TEST(RelayFutures, RunTheirContinuationAndKeepItsException) {
    relay::Promise<int> promise;
    int seen = 0;
    auto late =
        promise.getFuture().then([&seen](relay::Future<int>&& value) { seen = value.get(); });
    EXPECT_EQ(seen, 0);
    promise.setValue(3);
    EXPECT_EQ(seen, 3);
    EXPECT_TRUE(late.isReady());
    auto failed = relay::makeReadyFuture(4).then([&seen](relay::Future<int>&& value) -> int {
        seen = value.get();
        throw std::runtime_error("thrown on purpose");
    });
    EXPECT_EQ(seen, 4) << "a completed future runs its continuation at once";
    EXPECT_THROW(failed.get(), std::runtime_error);
    EXPECT_FALSE(failed.valid());
    auto broken = relay::Promise<int>().getFuture();
    EXPECT_THROW(broken.get(), std::future_error);
}

DataBuffer bufferOf(const std::string& bytes) {
    auto* data = static_cast<char*>(std::malloc(bytes.size()));
    if (data == nullptr) throw std::bad_alloc();
    bytes.copy(data, bytes.size());
    return {data, bytes.size(), bytes.size()};
}

std::string bytesOf(const DataBuffer& buffer) {
    return buffer.empty() ? "" : std::string(buffer.data(), buffer.size());
}

std::shared_ptr<BinaryStream> openStream(const std::string& channel) {
    return createBinaryStream(channel, {{"returnOnFail", "true"}});
}

TEST(RelayStreams, AnswerEachBlockOnceInAnyOrder) {
    const auto client = conformance::openStreamClient("/conformance/stream");
    const auto stream = openStream("/conformance/stream");
    auto first = stream->send(bufferOf("first"));
    auto second = stream->send(bufferOf("second"));
    client->awaitBlocks(2);
    EXPECT_EQ(client->bytes(0), "first");
    EXPECT_EQ(client->bytes(1), "second");
    EXPECT_FALSE(first.isReady());
    client->answer(1, false);
    const SendResult failed = second.get();
    EXPECT_FALSE(failed.delivered);
    EXPECT_EQ(bytesOf(failed.buffer), "second");
    EXPECT_FALSE(first.isReady());
    client->answer(0, true);
    const SendResult delivered = first.get();
    EXPECT_TRUE(delivered.delivered);
    EXPECT_EQ(bytesOf(delivered.buffer), "");
}

TEST(RelayStreams, ThatEndGiveBackWhatIsUnderWay) {
    const auto client = conformance::openStreamClient("/conformance/ended");
    auto stream = openStream("/conformance/ended");
    auto future = stream->send(bufferOf("under way"));
    client->awaitBlocks(1);
    stream.reset();
    const SendResult result = future.get();
    EXPECT_FALSE(result.delivered);
    EXPECT_EQ(bytesOf(result.buffer), "under way");
    client->answer(0, true);  // too late, and harmless
}

TEST(RelayStreams, ThatLoseTheirClientGiveBackWhatIsUnderWay) {
    auto client = conformance::openStreamClient("/conformance/left");
    const auto stream = openStream("/conformance/left");
    auto future = stream->send(bufferOf("under way"));
    client->awaitBlocks(1);
    client.reset();
    const SendResult result = future.get();
    EXPECT_FALSE(result.delivered);
    EXPECT_EQ(bytesOf(result.buffer), "under way");
}

TEST(RelayStreams, GiveBlocksBackWhenNoClientIsThere) {
    const SendResult result = openStream("/conformance/nobody")->send(bufferOf("lost")).get();
    EXPECT_FALSE(result.delivered);
    EXPECT_EQ(bytesOf(result.buffer), "lost");
}

TEST(RelayStreams, ReceiveTheClientsBlocksWhole) {
    const auto client = conformance::openStreamClient("/conformance/received");
    const auto stream = openStream("/conformance/received");
    const auto received = std::make_shared<std::promise<std::string>>();
    stream->receive([](DataBuffer&&) { FAIL() << "the replaced callback was called"; });
    stream->receive([received](DataBuffer&& block) { received->set_value(bytesOf(block)); });
    const std::string bytes("\0\1\2 and\0more", 12);
    client->send(bytes);
    EXPECT_EQ(received->get_future().get(), bytes);
}

}  // namespace
