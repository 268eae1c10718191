#include "kiro/web/RelayPubSub.hpp"

#include "RelayFuture.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CHeap.hpp"
#include "Captures.hpp"
#include "Fixture.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiro/web/ConnectionStatus.hpp"
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

    Lines log;
    std::vector<service::Handler> handlers;
    std::function<Subscribed()> answer = [] {
        return relay::makeReadyFuture(std::make_shared<service::Subscription>());
    };

  protected:
    relay::Future<service::Published> doPublish(const std::string& channel,
                                                const service::JsonMessage& message) override {
        log.push_back(channel + "=" + std::string(message.json, message.length));
        return {};  // nobody may wait for it
    }
    Subscribed doSubscribe(const std::string& channel, service::Handler handler) override {
        log.push_back("+" + channel);
        handlers.push_back(std::move(handler));
        return answer();
    }
};

/// Has every endpoint made over one scripted service.
struct ScriptedRelay : testing::Test {
    std::shared_ptr<ScriptedService> fake = std::make_shared<ScriptedService>();
    kirohost::Scope replacement = kirohost::replaceMessageService([this](const std::string&) {
        return relay::makeReadyFuture<std::shared_ptr<service::MessageService>>(fake);
    });
};

TEST(RelayPubSub, endsSafelyWithMessagesInFlight) {
    std::atomic<bool> stop = false;
    const auto source = std::make_shared<RelayPubSub>();
    std::jthread publisher([&stop, source] {
        while (!stop) {
            publishOn(*source, "/newView", "{}");
            publishOn(*source, "/reconnect", "{}");
            kirohost::waitForDelivery();
        }
    });
    for (int round = 0; round < 50; ++round) {
        auto status = std::make_shared<ConnectionStatus>("/reconnect", "/newView");
        const Recorder heard;
        const auto listener = status->createNewViewListener([] {});
        const auto reconnected = status->createReconnectSubscriber(heard.callback());
        auto endpoint = std::make_shared<RelayPubSub>();
        auto own = subscribe(endpoint, "/newView", heard.callback());
        heard.awaitSize(1);
        // Each order of destruction has its turn.
        if (round % 2 == 0) endpoint.reset();
        if (round % 3 == 0) status.reset();
        own.reset();
    }
    stop = true;
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
    EXPECT_EQ(fake->log, Lines{"c="});
}

TEST_F(ScriptedRelay, aFailedSubscriptionLeavesNothingRegistered) {
    const auto endpoint = std::make_shared<RelayPubSub>();
    const Recorder recorder;
    const auto attempt = [&] { return subscribe(endpoint, "c", recorder.callback()); };
    const auto succeeding = fake->answer;
    fake->answer = []() -> ScriptedService::Subscribed { throw std::domain_error("service"); };
    EXPECT_THROW((void)attempt(), std::domain_error);
    fake->answer = [] { return ScriptedService::Subscribed(); };
    EXPECT_THROW((void)attempt(), std::runtime_error);
    fake->answer = [] {  // its promise is destroyed unset
        return relay::Promise<std::shared_ptr<service::Subscription>>().getFuture();
    };
    EXPECT_THROW((void)attempt(), std::future_error);
    fake->answer = succeeding;
    const auto subscriber = attempt();
    EXPECT_EQ(fake->log.size(), 4U) << "asked afresh each time";
    endpoint->handlePublishCallback("c", StringPayload("heard once"));
    EXPECT_EQ(recorder.all().size(), 1U);
}

TEST_F(ScriptedRelay, aMessageWithoutTextAndAServiceThatIsNotThereAreFailedAssertions) {
    const support::AssertionCapture assertions;
    const auto endpoint = std::make_shared<RelayPubSub>();
    const Recorder recorder;
    const auto subscriber = subscribe(endpoint, "c", recorder.callback());
    const std::string channel = "c";
    fake->handlers.front()({channel, nullptr, 0});
    EXPECT_EQ(recorder.lines(), Lines{"c "});
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
