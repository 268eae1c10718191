#include "kiro/web/ConnectionStatus.hpp"
// The header above compiles by itself; so do these.
#include "kiro/web/WebBlockingOperation.hpp"
#include "kiro/web/WebTerminatingCondition.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "Fixture.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "kiro/web/Subscriber.hpp"

namespace kiro::web {
namespace {

static_assert(std::is_nothrow_destructible_v<ConnectionStatus>);
static_assert(!std::is_copy_constructible_v<ConnectionStatus>);
static_assert(std::is_nothrow_destructible_v<WebTerminatingCondition>);
static_assert(!std::is_copy_constructible_v<WebTerminatingCondition>);

namespace catalog = component_Quarn::catalog_graphics;
using bedrock::core::MessageId;
using bedrock::core::except::Exception;
using kiroutils::TerminatingConditionException;
using ReconnectError = Exception<catalog::key_reconnect, TerminatingConditionException>;
using NewViewError = Exception<catalog::key_newView, TerminatingConditionException>;

void reconnect() { support::publish("/reconnect", "not even JSON"); }
void openView() { support::publish("/newView", "{}"); }

bool never() { return false; }

/// A client that has shown its first view.
struct Connection : testing::Test {
    Connection() { openView(); }
    std::shared_ptr<ConnectionStatus> status =
        std::make_shared<ConnectionStatus>("/reconnect", "/newView");
};

TEST(ConnectionStatus, reportsEveryViewButTheFirst) {
    ConnectionStatus status("/reconnect", "/newView");
    int heard = 0;
    int alsoHeard = 0;
    const auto listener = status.createNewViewListener([&heard] { ++heard; });
    auto other = std::make_unique<kiroutils::EventDispatcher::Listener>(
        status.createNewViewListener([&alsoHeard] { ++alsoHeard; }));
    EXPECT_FALSE(status.getStatus());
    reconnect();
    EXPECT_FALSE(status.getStatus());
    openView();
    EXPECT_TRUE(status.getStatus());
    EXPECT_EQ(heard + alsoHeard, 0);
    openView();
    other.reset();
    openView();
    EXPECT_TRUE(status.getStatus());
    EXPECT_EQ(heard, 2);
    EXPECT_EQ(alsoHeard, 1);
}

TEST_F(Connection, passesEveryReconnectMessageOn) {
    const support::Recorder recorder;
    auto subscriber = status->createReconnectSubscriber(recorder.callback());
    support::publish("/reconnect", "1");
    openView();
    support::publish("/reconnect", "2");
    subscriber.reset();
    support::publish("/reconnect", "3");
    EXPECT_EQ(recorder.lines(), (support::Lines{"/reconnect 1", "/reconnect 2"}));
}

TEST_F(Connection, mayEndInsideItsOwnListenerAndBeforeItsHandles) {
    int heard = 0;
    const auto listener = status->createNewViewListener([this, &heard] {
        ++heard;
        status.reset();
    });
    const support::Recorder recorder;
    const auto subscriber = status->createReconnectSubscriber(recorder.callback());
    openView();
    openView();
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(status, nullptr);
    reconnect();
    EXPECT_EQ(recorder.all().size(), 1U) << "a reconnect subscriber lives by itself";
}

TEST_F(Connection, theMutexIsFreeWhileListenersRun) {
    bool seen = false;
    const auto listener = status->createNewViewListener([this, &seen] {
        seen = status->getStatus();
        const auto another = status->createNewViewListener([] {});
    });
    openView();
    EXPECT_TRUE(seen);
}

TEST(ConnectionStatusDeathTest, anEmptyListenerEndsTheProcessUnderEveryPolicy) {
    // The parentheses, braces and stars stand for themselves.
    EXPECT_DEATH(
        {
            const auto policy =
                kirohost::setAssertionPolicy(kirohost::AssertionPolicy::kReport, nullptr);
            (void)ConnectionStatus("/reconnect", "/newView").createNewViewListener(nullptr);
        },
        "fcn != nullptr, src/ConnectionStatus:33, kiroutils::EventDispatcher::Listener "
        "[{]anonymous[}]::ConnectionStatusDispatcher::createListener"
        "[(]kiro::web::ConnectionStatus::NewViewCallback[)]");
}

TEST_F(Connection, aConditionReportsEachEventOnceAndAReconnectFirst) {
    WebTerminatingCondition condition("wait", &never, status);
    EXPECT_EQ(condition.timeout(), std::chrono::seconds(1200));
    EXPECT_FALSE(condition.doThrowIfError());
    reconnect();
    reconnect();
    openView();
    try {
        condition.doThrowIfError();
        FAIL() << "no error";
    } catch (const ReconnectError& error) {
        EXPECT_EQ(error.messageId(), (MessageId{"Quarn:graphics", "reconnect"}));
        EXPECT_EQ(error.what(), messageText(error.messageId(), {"reconnect"}));
    }
    try {
        condition.doThrowIfError();
        FAIL() << "no error";
    } catch (const NewViewError& error) {
        EXPECT_EQ(error.messageId(), (MessageId{"Quarn:graphics", "newView"}));
        EXPECT_EQ(error.what(), messageText(error.messageId(), {"new view"}));
    }
    EXPECT_FALSE(condition.doThrowIfError());
    EXPECT_FALSE(condition.shouldTerminate());
}

TEST_F(Connection, aConditionSeesTheEventsOfItsOwnLifeOnlyAndKeepsItsStatus) {
    reconnect();
    openView();
    const std::weak_ptr<ConnectionStatus> weak = status;
    {
        WebTerminatingCondition condition("wait", &never, std::move(status));
        EXPECT_FALSE(condition.doThrowIfError());
        EXPECT_FALSE(weak.expired());
        openView();
        EXPECT_THROW(condition.doThrowIfError(), NewViewError);
    }
    EXPECT_TRUE(weak.expired());
    reconnect();
    openView();
}

TEST_F(Connection, theFirstViewDoesNotEndAWait) {
    ConnectionStatus fresh("/reconnect", "/fresh");
    WebTerminatingCondition condition("wait", &never,
                                      std::make_shared<ConnectionStatus>("/reconnect", "/fresh"));
    support::publish("/fresh", "{}");
    EXPECT_FALSE(condition.doThrowIfError());
    support::publish("/fresh", "{}");
    EXPECT_THROW(condition.doThrowIfError(), NewViewError);
}

TEST(WebTerminatingCondition, withoutAStatusNoEventsCome) {
    WebTerminatingCondition condition("wait", &never, nullptr);
    reconnect();
    openView();
    EXPECT_FALSE(condition.doThrowIfError());
}

TEST_F(Connection, aWaitEndsByItsCondition) {
    int pumped = 0;
    WebBlockingOperation::waitOrThrow(
        "wait", [&pumped] { return pumped == 3; }, status, [&pumped] { ++pumped; });
    EXPECT_EQ(pumped, 3);
    WebBlockingOperation::waitOrThrow(
        "wait", [] { return true; }, nullptr, nullptr);
}

TEST_F(Connection, aWaitEndsByAnEventOfTheClientUnlessItsConditionHoldsAlready) {
    EXPECT_THROW(WebBlockingOperation::waitOrThrow("wait", &never, status, &reconnect),
                 ReconnectError);
    EXPECT_THROW(WebBlockingOperation::waitOrThrow("wait", &never, status, &openView),
                 NewViewError);
    bool met = false;
    WebBlockingOperation::waitOrThrow(
        "wait", [&met] { return met; }, status,
        [&met] {
            reconnect();
            openView();
            met = true;
        });
}

TEST_F(Connection, aWaitPassesOnWhatItsFunctionsThrow) {
    EXPECT_THROW(WebBlockingOperation::waitOrThrow(
                     "wait", []() -> bool { throw std::domain_error("condition"); }, status, {}),
                 std::domain_error);
    EXPECT_THROW(WebBlockingOperation::waitOrThrow("wait", &never, status,
                                                   [] { throw std::length_error("pump"); }),
                 std::length_error);
}

TEST_F(Connection, aWaitTimesOutAfterTwentyMinutes) {
    const support::FakeClock clock;
    int pumped = 0;
    try {
        WebBlockingOperation::waitOrThrow("drawn", &never, status, [&pumped] {
            support::FakeClock::advanceSeconds(++pumped == 1 ? 1199 : 1);
        });
        FAIL() << "no time-out";
    } catch (const TerminatingConditionException& error) {
        EXPECT_NE(std::string(error.what()).find("1200 seconds"), std::string::npos);
    }
    EXPECT_EQ(pumped, 2);
}

}  // namespace
}  // namespace kiro::web
