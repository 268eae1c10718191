#include "kiro/web/RelayPubSub.hpp"

#include "RelayFuture.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <latch>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CHeap.hpp"
#include "Captures.hpp"
#include "Fixture.hpp"
#include "bedrock/json/Value.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiroutils/Logger.hpp"
#include "relay/message_service/MessageService.hpp"

namespace kiro::web {
namespace {

namespace service = relay::message_service;
using support::Lines;
using support::Recorder;

void publishOn(PubSubInterface& endpoint, const std::string& channel, const std::string& text) {
    StringPayload payload(text);
    endpoint.publish(channel, payload);
}

/// A message service in the test's hands, which answers what `answer` says.
class ScriptedService : public service::MessageService {
  public:
    using Subscribed = relay::Future<std::shared_ptr<service::Subscription>>;

    Lines log;
    std::vector<service::Handler> handlers;
    std::function<Subscribed()> answer;

    Subscribed answerAtOnce(const std::string& channel) {
        return relay::makeReadyFuture<std::shared_ptr<service::Subscription>>(
            std::make_shared<Ending>(*this, channel));
    }

  protected:
    relay::Future<service::Published> doPublish(const std::string& channel,
                                                const service::JsonMessage& message) override {
        log.push_back(channel + "=" + message.channel + " " +
                      std::string(message.json, message.length));
        return {};  // nobody may wait for it
    }
    Subscribed doSubscribe(const std::string& channel, service::Handler handler) override {
        log.push_back("+" + channel);
        handlers.push_back(std::move(handler));
        return answer ? answer() : answerAtOnce(channel);
    }

  private:
    struct Ending : service::Subscription {
        Ending(ScriptedService& theOwner, std::string theChannel)
            : owner(theOwner), channel(std::move(theChannel)) {}
        Ending(const Ending&) = delete;
        Ending& operator=(const Ending&) = delete;
        ~Ending() override { owner.log.push_back("-" + channel); }
        ScriptedService& owner;
        std::string channel;
    };
};

/// Has every endpoint made over one scripted service.
struct ScriptedRelay : testing::Test {
    std::shared_ptr<ScriptedService> fake = std::make_shared<ScriptedService>();
    kirohost::Scope replacement = kirohost::replaceMessageService([this](const std::string&) {
        return relay::makeReadyFuture<std::shared_ptr<service::MessageService>>(fake);
    });
};

// --- Over the stand-in's message service --------------------------------------------------------

TEST(RelayPubSub, deliversOnAThreadOfItsOwnUnderTheMessagesOwnChannelToEachCallbackOnce) {
    const auto endpoint = std::make_shared<RelayPubSub>();
    const Recorder wildcard;
    const Recorder exact;
    const Recorder twice;
    const auto one = subscribe(endpoint, "/graphics/*", wildcard.callback());
    const auto two = subscribe(endpoint, "/graphics/a", exact.callback());
    const auto three = subscribe(endpoint, "/graphics/a", twice.callback());
    publishOn(*endpoint, "/graphics/a", "1");
    publishOn(*endpoint, "/graphics/b", "2");
    publishOn(*endpoint, "/other", "3");
    kirohost::waitForDelivery();
    EXPECT_EQ(wildcard.lines(), (Lines{"/graphics/a 1", "/graphics/b 2"}));
    EXPECT_EQ(exact.lines(), Lines{"/graphics/a 1"});
    EXPECT_EQ(twice.lines(), Lines{"/graphics/a 1"});
    for (const auto& message : wildcard.all()) {
        EXPECT_NE(message.thread, std::this_thread::get_id());
    }
}

TEST(RelayPubSub, carriesTextUnchangedOnChannelsOfEveryName) {
    const auto endpoint = std::make_shared<RelayPubSub>();
    for (const auto& channel : {std::string(), std::string(1 << 20, 'x'), std::string(100, '*')}) {
        const Recorder recorder;
        const auto subscriber = subscribe(endpoint, channel, recorder.callback());
        JSONPayload empty;
        endpoint->publish(channel, empty);
        publishOn(*endpoint, channel, "");
        publishOn(*endpoint, channel, std::string("\0\xFF", 2));
        kirohost::waitForDelivery();
        EXPECT_EQ(recorder.messagesOn(channel), (Lines{"{}", "", std::string("\0\xFF", 2)}));
    }
}

TEST(RelayPubSub, whatACallbackThrowsIsLoggedAndTheNextMessageArrives) {
    const support::LogCapture log("relay");
    const auto endpoint = std::make_shared<RelayPubSub>();
    const Recorder recorder;
    const auto empty = subscribe(endpoint, "/empty", nullptr);
    const auto throwing = subscribe(endpoint, "/throwing", [](const auto&, const auto&) {
        throw std::domain_error("callback went wrong");
    });
    const auto sound = subscribe(endpoint, "/sound", recorder.callback());
    for (const char* channel : {"/empty", "/throwing", "/sound"}) publishOn(*endpoint, channel, "");
    kirohost::waitForDelivery();
    EXPECT_EQ(recorder.all().size(), 1U);
    ASSERT_EQ(log.size(), 2U);
    EXPECT_NE(log.texts().back().find("callback went wrong"), std::string::npos);
}

TEST(RelayPubSub, endsSafelyWithMessagesInFlight) {
    constexpr int kPublishers = 3;
    std::latch start(kPublishers + 1);
    std::atomic<bool> stop = false;
    const auto source = std::make_shared<RelayPubSub>();
    std::vector<std::jthread> publishers;
    for (int i = 0; i < kPublishers; ++i) {
        publishers.emplace_back([&start, &stop, source] {
            start.arrive_and_wait();
            while (!stop) {
                publishOn(*source, "/newView", "{}");
                publishOn(*source, "/reconnect", "{}");
                kirohost::waitForDelivery();
            }
        });
    }
    start.arrive_and_wait();
    for (int round = 0; round < 50; ++round) {
        auto status = std::make_shared<ConnectionStatus>("/reconnect", "/newView");
        auto heard = std::make_shared<std::atomic<int>>(0);
        auto listener = status->createNewViewListener([heard] { ++*heard; });
        auto reconnected =
            status->createReconnectSubscriber([heard](const auto&, const auto&) { ++*heard; });
        auto endpoint = std::make_shared<RelayPubSub>();
        auto own = subscribe(endpoint, "/newView", [heard](const auto&, const auto&) { ++*heard; });
        kirohost::waitForDelivery();
        // Each order of destruction has its turn.
        if (round % 2 == 0) endpoint.reset();
        if (round % 3 == 0) status.reset();
        own.reset();
        endpoint.reset();
        reconnected.reset();
        status.reset();
    }
    stop = true;
}

// --- Over a scripted message service ------------------------------------------------------------

TEST_F(ScriptedRelay, subscribesOncePerChannelAndUnsubscribesWithTheFirst) {
    const auto endpoint = std::make_shared<RelayPubSub>();
    auto first = subscribe(endpoint, "c", [](const auto&, const auto&) {});
    auto second = subscribe(endpoint, "c", [](const auto&, const auto&) {});
    publishOn(*endpoint, "c", "{}");
    second.reset();
    first.reset();
    EXPECT_EQ(fake->log, (Lines{"+c", "c=c {}", "-c"}));
}

TEST_F(ScriptedRelay, publishesNothingWhenTheTextCannotBeCopied) {
    static std::size_t asked = 0;
    const auto endpoint = std::make_shared<RelayPubSub>();
    replaceAllocate([](std::size_t size) -> void* {
        asked = size;
        return nullptr;
    });
    try {
        publishOn(*endpoint, "c", "12345");
        ADD_FAILURE() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Out of memory!");
    }
    replaceAllocate(nullptr);
    EXPECT_EQ(asked, 5U);
    EXPECT_TRUE(fake->log.empty());
    publishOn(*endpoint, "c", "");
    EXPECT_EQ(fake->log, Lines{"c=c "});
}

TEST_F(ScriptedRelay, aFailedSubscriptionLeavesNothingRegistered) {
    const auto endpoint = std::make_shared<RelayPubSub>();
    const Recorder recorder;
    const auto attempt = [&] { return subscribe(endpoint, "c", recorder.callback()); };
    fake->answer = []() -> ScriptedService::Subscribed { throw std::domain_error("service"); };
    EXPECT_THROW((void)attempt(), std::domain_error);
    fake->answer = [] { return ScriptedService::Subscribed(); };
    EXPECT_THROW((void)attempt(), std::runtime_error);
    fake->answer = [] {  // its promise is destroyed unset
        return relay::Promise<std::shared_ptr<service::Subscription>>().getFuture();
    };
    EXPECT_THROW((void)attempt(), std::future_error);
    endpoint->handlePublishCallback("c", StringPayload("unheard"));
    EXPECT_TRUE(recorder.all().empty());
    fake->answer = nullptr;
    const auto subscriber = attempt();
    EXPECT_EQ(fake->log.size(), 4U) << "asked afresh each time";
}

TEST_F(ScriptedRelay, aMessageWithoutTextIsAFailedAssertionAndThenAnEmptyPayload) {
    const support::AssertionCapture assertions;
    const auto endpoint = std::make_shared<RelayPubSub>();
    const Recorder recorder;
    const auto subscriber = subscribe(endpoint, "c", recorder.callback());
    const std::string channel = "c";
    fake->handlers.front()({channel, nullptr, 0});
    EXPECT_EQ(recorder.messagesOn("c"), Lines{""});
    EXPECT_EQ(assertions.texts(), Lines{"src/RelayPubSub:59: msg.json != nullptr"});
}

TEST_F(ScriptedRelay, aServiceThatIsNotThereIsAFailedAssertion) {
    fake = nullptr;
    const support::AssertionCapture assertions;
    const RelayPubSub endpoint;
    ASSERT_EQ(assertions.size(), 1U);
    EXPECT_EQ(assertions.all().front().condition, "fMessageService != nullptr");
    EXPECT_EQ(assertions.all().front().source, "src/RelayPubSub");
    EXPECT_EQ(assertions.all().front().function, "kiro::web::RelayPubSub::Impl::Impl()");
}

// --- Waiting ------------------------------------------------------------------------------------

TEST(RelayFuture, isForTheSignalThread) {
    const support::AssertionCapture assertions;
    int value = 0;
    std::jthread([&value] {
        value = RelayFuture(relay::makeReadyFuture(7), "wait").wait();
    }).join();
    EXPECT_EQ(value, 7);
    EXPECT_EQ(assertions.texts(), Lines{"src/RelayFuture:50: utIsSignalThread()"});
}

TEST(RelayFutureDeathTest, offTheSignalThreadEndsTheProcess) {
    EXPECT_DEATH(std::jthread([] { const RelayPubSub endpoint; }).join(),
                 "utIsSignalThread\\(\\), src/RelayFuture:50");
}

TEST(RelayFuture, waitsForTheValueAndRunsNoInterpreterTasksMeanwhile) {
    kirohost::wakeInterpreter();
    relay::Promise<int> promise;
    RelayFuture<int> future(promise.getFuture(), "wait");
    std::jthread other([&promise] { promise.setValue(7); });
    EXPECT_EQ(future.wait(), 7);
    EXPECT_EQ(kirohost::pendingTasks(graphics_util::getContextQCRID()).size(), 1U);
    kirohost::runPendingTasks();
}

TEST(RelayFuture, passesTheErrorOn) {
    relay::Promise<int> promise;
    RelayFuture<int> future(promise.getFuture(), "wait");
    promise.setException(std::make_exception_ptr(std::domain_error("no")));
    EXPECT_THROW(future.wait(), std::domain_error);
}

TEST(RelayFuture, oneLookEndsAtItsDeadline) {
    const support::FakeClock clock;  // its deadlines are past: no look waits at all
    relay::Promise<int> promise;
    const auto future = std::make_shared<relay::Future<int>>(promise.getFuture());
    EXPECT_FALSE(RelayFuture<int>::isReady(future));
    promise.setValue(7);
    EXPECT_TRUE(RelayFuture<int>::isReady(future));
}

TEST(RelayFuture, refusesAFutureThatIsGoneOrHasNoState) {
    try {
        RelayFuture<int>::isReady({});
        FAIL() << "no error";
    } catch (const QxError& error) {
        EXPECT_EQ(error.messageId(), (bedrock::core::MessageId{"Quarn:class", "InvalidHandle"}));
    }
    try {
        RelayFuture<int>(relay::Future<int>(), "wait").wait();
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Future state isn't valid!");
    }
}

// --- The recorder of client messages ------------------------------------------------------------

/// The recorder comes into being with the first requestor, when the host wants one.
struct ClientRecorder : testing::Test {
    ClientRecorder() { kiroutils::Logger::instance().clearHistory("DrawnowTimeout"); }

    /// The history as "event|source|data|channel" of each entry; publishes `text` first.
    static Lines recorded(const std::string& channel, const std::string& text) {
        auto& logger = kiroutils::Logger::instance();
        logger.clearHistory("DrawnowTimeout");
        support::publish(channel, text);
        kirohost::waitForDelivery();
        Lines lines;
        for (const auto& entry : logger.history("DrawnowTimeout")) {
            const auto record = bedrock::json::parse(entry).value_or(bedrock::json::Value());
            EXPECT_EQ(record.textOf("LogType"), "Client");
            lines.push_back(record.textOf("Event").value_or("?") + "|" +
                            record.textOf("Source").value_or("?") + "|" +
                            record.textOf("EventData").value_or("?") + "|" +
                            record.textOf("Channel").value_or("?"));
        }
        return lines;
    }

    support::ScopedSettings settings{[](kirohost::Settings& s) { s.drawnowTimeoutLogging = true; }};
    PubSubACTRequestor requestor{nullptr, "/return", "test", "browser", false};
};

TEST_F(ClientRecorder, recordsWhatTheClientSays) {
    const std::string log = "/graphics/PubSubLogger/log";
    const std::string errors = "/services/ErrorLoggingService/JSErrors";
    const struct {
        std::string channel;
        std::string text;
        std::string record;
    } table[] = {
        {"/graphics/a", R"({"Type":"T","Description":"D","message":"M"})", "T|D|M|"},
        {"/graphics/a/b", R"({"Type":5,"Description":{"b":1,"a":[2]},"message":null})",
         R"(5|{"a":[2],"b":1}|null|)"},
        {"/graphics/a", R"({"message":{"vxdata":[1,2],"vxtype":"int32"}})",
         R"(Message Publish||{"vxdata":[1,2],"vxtype":"int32"}|)"},
        {"/graphics/a", "{}", "Message Publish|||"},
        {"/graphics/a", "[1]", "Message Publish|||"},
        {"/graphics/a", "{\"Type\":", "Message Publish|||"},
        {"/graphics/a", "", "Message Publish|||"},
        {"/graphics/", "\xFF", "Message Publish|||"},
        {log, R"({"Type":"T","Description":"D","message":"M"})", "Log|D|M|"},
        {log, "no JSON", "Log|||"},
        {errors, R"({ "b" : 1, "a" : "x" })", R"(Error|ErrorLoggingService|{"a":"x","b":1}|)"},
        {errors, R"("line 1")", R"(Error|ErrorLoggingService|"line 1"|)"},
        {errors, "TypeError: x", "Error|ErrorLoggingService|TypeError: x|"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(recorded(row.channel, row.text), Lines{row.record + row.channel}) << row.text;
    }
    EXPECT_EQ(recorded("/elsewhere", "{}"), Lines{});

    kiroutils::Logger::instance().clearHistory("DrawnowTimeout");
    support::publish("/graphics/a", "{}");
    kirohost::waitForDelivery();
    EXPECT_EQ(kiroutils::Logger::instance().history("DrawnowTimeout"),
              Lines{R"({"Channel":"/graphics/a","Event":"Message Publish","EventData":"",)"
                    R"("LogType":"Client","Source":""})"});
}

TEST_F(ClientRecorder, keepsTheLast400Entries) {
    for (int i = 0; i < 450; ++i)
        support::publish("/graphics/a", R"({"Type":")" + std::to_string(i) + "\"}");
    kirohost::waitForDelivery();
    const auto history = kiroutils::Logger::instance().history("DrawnowTimeout");
    ASSERT_EQ(history.size(), 400U);
    EXPECT_NE(history.front().find("\"Event\":\"50\""), std::string::npos);
    EXPECT_NE(history.back().find("\"Event\":\"449\""), std::string::npos);
}

}  // namespace
}  // namespace kiro::web
