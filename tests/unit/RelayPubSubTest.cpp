#include "kiro/web/RelayPubSub.hpp"

#include "RelayFuture.hpp"

#include <algorithm>

#include "CHeap.hpp"
#include "Fixture.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiroutils/Logger.hpp"
#include "relay/message_service/MessageService.hpp"

namespace kiro::web {
namespace {

namespace service = relay::message_service;
using support::Lines;
using support::publishOn;
using support::Recorder;

/// A message service in the test's hands, which answers what `answer` says.
class ScriptedService : public service::MessageService {
  public:
    using Subscribed = relay::Future<std::shared_ptr<service::Subscription>>;

    /// "+channel", "-channel" of a subscription, "channel=text" of a message.
    std::shared_ptr<Lines> log = std::make_shared<Lines>();
    std::vector<service::Handler> handlers;
    std::function<Subscribed(std::shared_ptr<service::Subscription>)> answer = [](auto given) {
        return relay::makeReadyFuture(std::move(given));
    };
    /// Has the first handler hear `text`.
    void say(const std::string& channel, const std::string& text) const {
        handlers.front()({channel, text.data(), text.size()});
    }

  protected:
    relay::Future<service::Published> doPublish(const std::string& channel,
                                                const service::JsonMessage& message) override {
        log->push_back(channel + "=" + std::string(message.json, message.length));
        return {};  // nobody may wait for it
    }
    Subscribed doSubscribe(const std::string& channel, service::Handler handler) override {
        log->push_back("+" + channel);
        handlers.push_back(std::move(handler));
        return answer({new service::Subscription, [log = log, channel](auto* subscription) {
                           log->push_back("-" + channel);
                           delete subscription;
                       }});
    }
};

/// Has every endpoint made over one scripted service.
struct ScriptedRelay : testing::Test {
    std::shared_ptr<ScriptedService> fake = std::make_shared<ScriptedService>();
    kirohost::Scope replacement = kirohost::replaceMessageService([this](const std::string&) {
        return relay::makeReadyFuture<std::shared_ptr<service::MessageService>>(fake);
    });
    Recorder recorder;
};

TEST_F(ScriptedRelay, theFirstSubscriberOfAChannelOwnsTheTransportsSubscription) {
    const auto endpoint = std::make_shared<RelayPubSub>();
    auto first = subscribe(endpoint, "c", recorder.callback());
    auto second = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(*fake->log, Lines{"+c"});
    fake->say("c", "twice");
    EXPECT_EQ(recorder.messagesOn("c"), (Lines{"twice", "twice"}));
    first.reset();
    auto third = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(fake->handlers.size(), 1U) << "the second one still listens";
    second.reset();
    third.reset();
    const auto fourth = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(*fake->log, (Lines{"+c", "-c", "+c"}));
}

TEST_F(ScriptedRelay, theTransportNeitherKeepsTheEndpointNorReachesItOrADetachedListener) {
    auto endpoint = std::make_shared<RelayPubSub>();
    auto subscriber = subscribe(endpoint, "c", recorder.callback());
    const auto detached = subscribe(endpoint, "c", recorder.callback());
    for (int i = 0; i < 2; ++i) detached->destroyEventListener();
    fake->say("c", "heard once");
    const std::weak_ptr<RelayPubSub> weak = endpoint;
    endpoint.reset();
    EXPECT_TRUE(weak.expired());
    fake->say("c", "late");
    subscriber.reset();
    EXPECT_EQ(*fake->log, (Lines{"+c", "-c"}));
    EXPECT_EQ(recorder.messagesOn("c"), Lines{"heard once"});
}

TEST_F(ScriptedRelay, publishesNothingWhenTheTextCannotBeCopied) {
    static std::size_t asked = 0;
    const auto endpoint = std::make_shared<RelayPubSub>();
    replaceAllocate([](std::size_t size) -> void* {
        asked = size;
        return nullptr;
    });
    EXPECT_THAT([&endpoint] { publishOn(*endpoint, "c", "12345"); },
                testing::ThrowsMessage<std::runtime_error>("Out of memory!"));
    replaceAllocate(nullptr);
    EXPECT_EQ(asked, 5U);
    publishOn(*endpoint, "c", "");
    EXPECT_EQ(*fake->log, Lines{"c="});
}

TEST_F(ScriptedRelay, aFailedSubscriptionLeavesNothingRegistered) {
    const auto endpoint = std::make_shared<RelayPubSub>();
    const auto attempt = [&] { return subscribe(endpoint, "c", recorder.callback()); };
    const auto succeeding = fake->answer;
    fake->answer = [](auto) -> ScriptedService::Subscribed { throw std::domain_error("service"); };
    EXPECT_THROW((void)attempt(), std::domain_error);
    fake->answer = [](auto) { return ScriptedService::Subscribed(); };
    EXPECT_THROW((void)attempt(), std::runtime_error);
    fake->answer = [](auto) {  // its promise is destroyed unset
        return relay::Promise<std::shared_ptr<service::Subscription>>().getFuture();
    };
    EXPECT_THROW((void)attempt(), std::future_error);
    fake->answer = succeeding;
    const auto subscriber = attempt();
    EXPECT_EQ(std::ranges::count(*fake->log, "+c"), 4) << "asked afresh each time";
    endpoint->handlePublishCallback("c", StringPayload("heard once"));
    EXPECT_EQ(recorder.all().size(), 1U);
}

TEST_F(ScriptedRelay, aMessageWithoutTextAndAServiceThatIsNotThereAreFailedAssertions) {
    const support::AssertionCapture assertions;
    const auto endpoint = std::make_shared<RelayPubSub>();
    const auto subscriber = subscribe(endpoint, "c", recorder.callback());
    const std::string channel = "c";
    fake->handlers.front()({channel, nullptr, 0});
    EXPECT_EQ(recorder.messagesOn("c"), Lines{""});
    fake = nullptr;
    EXPECT_THROW(RelayPubSub(), std::runtime_error);
    EXPECT_EQ(assertions.texts(), (Lines{"src/RelayPubSub:59: msg.json != nullptr",
                                         "src/RelayPubSub:34: fMessageService != nullptr"}));
}

TEST(RelayFuture, waitsForTheValueAndRunsNoInterpreterTasksMeanwhile) {
    kirohost::wakeInterpreter();
    relay::Promise<int> promise;
    RelayFuture<int> future(promise.getFuture(), "wait");
    const std::jthread other([&promise] { promise.setValue(7); });
    EXPECT_EQ(future.wait(), 7);
    EXPECT_EQ(kirohost::pendingTasks(graphics_util::getContextQCRID()).size(), 1U);
    kirohost::runPendingTasks();
}

/// The recorder comes into being with the first requestor, when the host wants one.
struct ClientRecorder : testing::Test {
    /// The record of `text`.
    static std::string recorded(const std::string& channel, const std::string& text) {
        auto& logger = kiroutils::Logger::instance();
        logger.clearHistory("DrawnowTimeout");
        support::publish(channel, text);
        kirohost::waitForDelivery();
        const auto history = logger.history("DrawnowTimeout");
        return history.size() == 1 ? history.front() : std::to_string(history.size()) + " records";
    }

    support::ScopedSettings settings{[](kirohost::Settings& s) { s.drawnowTimeoutLogging = true; }};
    PubSubACTRequestor requestor{nullptr, "/return", "test", "browser", false};
};

TEST_F(ClientRecorder, recordsWhatTheClientSays) {
    const std::string log = "/graphics/PubSubLogger/log";
    const std::string errors = "/services/ErrorLoggingService/JSErrors";
    const struct {
        std::string channel, text, event, data, source;
    } table[] = {
        {"/graphics/a", R"({"Type":"T","Description":"D","message":"M"})", "T", "M", "D"},
        {"/graphics/a/b", R"({"Type":5,"Description":{"b":1,"a":[2]},"message":null})", "5", "null",
         R"({\"a\":[2],\"b\":1})"},
        {log, R"({"Type":"T","Description":"D","message":"M"})", "Log", "M", "D"},
        {errors, "TypeError: x", "Error", "TypeError: x", "ErrorLoggingService"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(recorded(row.channel, row.text),
                  R"({"Channel":")" + row.channel + R"(","Event":")" + row.event +
                      R"(","EventData":")" + row.data + R"(","LogType":"Client","Source":")" +
                      row.source + "\"}");
    }
    EXPECT_EQ(recorded("/elsewhere", "{}"), "0 records");
}

}  // namespace
}  // namespace kiro::web
