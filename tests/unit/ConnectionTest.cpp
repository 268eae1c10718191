#include "kiro/web/ConnectionStatus.hpp"
// The header above compiles by itself; so do these.
#include "kiro/web/WebBlockingOperation.hpp"
#include "kiro/web/WebTerminatingCondition.hpp"

#include "Fixture.hpp"
#include "component_Quarn/catalog_graphics.hpp"

namespace kiro::web {
namespace {

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
    const auto listener = status.createNewViewListener([&heard] { ++heard; });
    reconnect();
    EXPECT_FALSE(status.getStatus());
    openView();
    EXPECT_TRUE(status.getStatus());
    EXPECT_EQ(heard, 0);
    openView();
    openView();
    EXPECT_EQ(heard, 2);
}

TEST_F(Connection, mayBeUsedAndEndInsideItsOwnListenerAndBeforeItsHandles) {
    int heard = 0;
    const auto listener = status->createNewViewListener([this, &heard] {
        const auto another = status->createNewViewListener([] {});  // no lock is held
        heard += status->getStatus() ? 1 : 100;
        status.reset();
    });
    const support::Recorder recorder;
    const auto subscriber = status->createReconnectSubscriber(recorder.callback());
    openView();
    openView();
    EXPECT_EQ(heard, 1);
    reconnect();
    EXPECT_EQ(recorder.all().size(), 1U) << "a reconnect subscriber lives by itself";
}

TEST(ConnectionStatusDeathTest, anEmptyListenerEndsTheProcessUnderEveryPolicy) {
    const support::AssertionCapture reported;
    ConnectionStatus status("/reconnect", "/newView");
    EXPECT_DEATH((void)status.createNewViewListener(nullptr), "fcn != nullptr");
}

TEST_F(Connection, aConditionReportsEachEventOfItsLifeOnceAndAReconnectFirst) {
    reconnect();
    openView();
    const std::weak_ptr<ConnectionStatus> kept = status;
    WebTerminatingCondition condition("wait", &never, std::move(status));
    EXPECT_FALSE(condition.doThrowIfError() || kept.expired());
    reconnect();
    reconnect();
    openView();
    const auto look = [&condition] { condition.doThrowIfError(); };
    const MessageId reconnected{"Quarn:graphics", "reconnect"};
    const MessageId opened{"Quarn:graphics", "newView"};
    EXPECT_THAT(look,
                testing::ThrowsMessage<ReconnectError>(messageText(reconnected, {"reconnect"})));
    EXPECT_THAT(look, testing::ThrowsMessage<NewViewError>(messageText(opened, {"new view"})));
    EXPECT_FALSE(condition.doThrowIfError());
}

TEST_F(Connection, aWaitEndsByAnEventOfTheClientUnlessItsConditionHoldsAlready) {
    const auto wait = &WebBlockingOperation::waitOrThrow;
    EXPECT_THROW(wait("wait", &never, status, &reconnect), ReconnectError);
    EXPECT_THROW(wait("wait", &never, status, &openView), NewViewError);
    bool met = false;
    const auto isMet = [&met] { return met; };
    wait("wait", isMet, status, [&met] {
        reconnect();
        openView();
        met = true;
    });
}

TEST(WebBlockingOperation, timesOutAfterTwentyMinutes) {
    const support::FakeClock clock;
    int pumped = 0;
    const auto pump = [&pumped] { support::FakeClock::advanceSeconds(++pumped == 1 ? 1199 : 1); };
    EXPECT_THROW(WebBlockingOperation::waitOrThrow("drawn", &never, nullptr, pump),
                 TerminatingConditionException);
    EXPECT_EQ(pumped, 2);
}

}  // namespace
}  // namespace kiro::web
