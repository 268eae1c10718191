#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "Captures.hpp"
#include "CompletionTokenManager.hpp"
#include "FailingNew.hpp"
#include "Fixture.hpp"
#include "graphics_util/getContextQCRID.hpp"

namespace {

using kiroutils::CompletionToken;
using support::FakeClock;
using support::Lines;
using support::ScopedSettings;
using Manager = kiro::ACTRequestor::CompletionTokenManager;
using Event = std::map<std::string, bedrock::json::Value>;

ScopedSettings timeoutOf(std::int64_t seconds) {
    return ScopedSettings([seconds](auto& settings) { settings.drawnowTimeoutSeconds = seconds; });
}

class Token : public testing::Test {
  protected:
    ~Token() override { kirohost::runPendingTasks(); }

    /// The wake-up tasks queued for `context`, as "source mode"; they run here.
    static Lines wakeUps() {
        Lines tasks;
        for (const auto& task : kirohost::pendingTasks(graphics_util::getContextQCRID())) {
            tasks.push_back(task.source + " " + std::to_string(task.whenToDequeue));
        }
        EXPECT_EQ(kirohost::runPendingTasks(), tasks.size());
        return tasks;
    }
    [[nodiscard]] bool isEmpty() const { return manager.haveAllTokensReturned(); }

    const Lines oneWakeUp{"src/ACTRequestor 1"};
    support::Collector<std::string> events;
    Manager manager{[this](Event event) {
        events.add(bedrock::json::serialize(bedrock::json::Object(std::move(event))));
    }};
};

TEST_F(Token, IsReturnedOnce) {
    EXPECT_TRUE(isEmpty());
    const auto token = manager.checkoutToken();
    EXPECT_FALSE(isEmpty());
    manager.returnToken(token);
    EXPECT_TRUE(isEmpty());
    EXPECT_EQ(events.all(), Lines{R"({"Event":"return ACT","EventData":{"Token Id":")" +
                                  token.convertToString() + "\"}}"});
    EXPECT_EQ(wakeUps(), oneWakeUp);
    manager.returnToken(token);
    EXPECT_EQ(events.size(), 1U);
    EXPECT_TRUE(wakeUps().empty());
}

TEST_F(Token, IgnoresEveryReturnButThatOfTheOutstandingOne) {
    const auto ignore = [this](const CompletionToken& token) {
        const bool before = isEmpty();
        manager.returnToken(token);
        EXPECT_EQ(isEmpty(), before);
        EXPECT_EQ(events.size(), 0U);
        EXPECT_TRUE(wakeUps().empty());
    };
    CompletionToken forged("");
    forged.getTimeStamps().serverSend = 7;
    for (const auto& token : {CompletionToken(), forged, CompletionToken("stranger")}) {
        ignore(token);
    }
    const auto replaced = manager.checkoutToken();
    const auto discarded = manager.checkoutToken();
    EXPECT_FALSE(replaced == discarded);
    for (const auto& token : {replaced, CompletionToken(), forged, CompletionToken("stranger")}) {
        ignore(token);
    }
    manager.discardAllTokens();
    EXPECT_TRUE(isEmpty());
    manager.discardAllTokens();
    ignore(discarded);
    const auto current = manager.checkoutToken();
    manager.returnToken(CompletionToken(current.convertToString()));
    EXPECT_TRUE(isEmpty());
    EXPECT_EQ(wakeUps(), oneWakeUp);
}

TEST_F(Token, TimesOutAfterMoreWholeSecondsThanTheTimeOut) {
    struct {
        std::int64_t timeout;
        long milliseconds;
        bool discarded;
    } const cases[] = {
        {5, 5000, false}, {5, 5900, false},       {5, 5999, false},
        {5, 6000, true},  {60, 60999, false},     {60, 61000, true},
        {1, 2000, true},  {0, 1000000000, false}, {-1, 0, true},
    };
    const FakeClock clock;
    EXPECT_TRUE(manager.discardTimedOutTokens().isDefaultToken());
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.timeout) + " s, after ms " + std::to_string(c.milliseconds));
        const auto timeout = timeoutOf(c.timeout);
        EXPECT_EQ(Manager::getTimeout(), c.timeout);
        const auto token = manager.checkoutToken();
        FakeClock::advance(std::chrono::milliseconds(c.milliseconds));
        const auto discarded = manager.discardTimedOutTokens();
        EXPECT_EQ(discarded == token, c.discarded);
        EXPECT_EQ(discarded.isDefaultToken(), !c.discarded);
        EXPECT_EQ(isEmpty(), c.discarded);
        if (c.discarded) manager.returnToken(token);
    }
    EXPECT_EQ(events.size(), 0U);
    EXPECT_TRUE(wakeUps().empty());

    const auto token = manager.checkoutToken();
    FakeClock::advanceSeconds(10);
    for (const std::int64_t seconds : {0, 10, 9}) {  // a change counts at the next check
        const auto timeout = timeoutOf(seconds);
        EXPECT_EQ(manager.discardTimedOutTokens() == token, seconds == 9);
    }
}

TEST_F(Token, LogsTheTimeStampsOfReturnedOnesWhileSwitchedOn) {
    const auto returnWith = [this](std::uint64_t clientReceive, std::uint64_t clientSend) {
        auto token = manager.checkoutToken();
        const auto serverSend = token.getTimeStamps().serverSend;
        token.getTimeStamps() = {serverSend, clientReceive, clientSend, 99};
        manager.returnToken(token);
        return serverSend;
    };
    EXPECT_FALSE(manager.isTimeStampLoggingEnabled());
    EXPECT_EQ(returnWith(1, 2), 0U);
    EXPECT_FALSE(manager.hasTimeStamps());

    manager.enableTimeStampLogging(true);
    EXPECT_TRUE(manager.isTimeStampLoggingEnabled());
    const auto serverSend = returnWith(18446744073709551615U, 2);
    EXPECT_GT(serverSend, 1000000000000000U) << "microseconds since 1970";
    manager.returnToken(CompletionToken("stranger"));
    ASSERT_EQ(manager.getTimeStampLog().size(), 1U);
    const auto stamps = manager.getTimeStampLog().front();
    EXPECT_EQ(stamps.serverSend, serverSend);
    EXPECT_EQ(stamps.clientReceive, 18446744073709551615U);
    EXPECT_EQ(stamps.clientSend, 2U);
    EXPECT_GT(stamps.serverReceive, 1000000000000000U) << "set here, whatever the reply says";

    manager.enableTimeStampLogging(false);
    const auto unstamped = manager.checkoutToken();
    EXPECT_EQ(unstamped.getTimeStamps().serverSend, 0U);
    manager.enableTimeStampLogging(true);
    manager.returnToken(unstamped);
    EXPECT_EQ(manager.getTimeStampLog().size(), 2U);
    manager.clearTimeStampLog();
    EXPECT_FALSE(manager.hasTimeStamps());
}

TEST_F(Token, ReservesAnewOnEachReturnButTheFirstUntilTheLogIsCleared) {
    manager.enableTimeStampLogging(true);
    const auto returnOne = [this] { manager.returnToken(manager.checkoutToken()); };
    const auto reservationsFor = [&](std::size_t entries) {
        const support::AllocationCount bytes(entries *
                                             sizeof(CompletionToken::CompletionTokenTimeStamps));
        returnOne();
        return bytes.count();
    };
    returnOne();  // into the constructor's room for 100
    for (std::size_t size = 1; size < 10; ++size) EXPECT_EQ(reservationsFor(size + 100), 1U);
    manager.clearTimeStampLog();
    EXPECT_EQ(reservationsFor(100), 0U);
    for (std::size_t size = 1; size < 10; ++size) EXPECT_EQ(reservationsFor(size + 100), 0U);
    EXPECT_EQ(manager.getTimeStampLog().size(), 10U);
    EXPECT_EQ(wakeUps().size(), 20U);
}

TEST_F(Token, WakesTheContextInWhichItsManagerWasMade) {
    kirohost::Vm vm;
    std::unique_ptr<Manager> theirs;
    {
        const auto bound = vm.bindThisThread();
        theirs = std::make_unique<Manager>([](Event) {});
    }
    std::thread([&] { theirs->returnToken(theirs->checkoutToken()); }).join();
    EXPECT_TRUE(wakeUps().empty());
    {
        const auto bound = vm.bindThisThread();
        EXPECT_EQ(wakeUps(), oneWakeUp);
    }
    std::thread([&] { manager.returnToken(manager.checkoutToken()); }).join();
    EXPECT_EQ(wakeUps(), oneWakeUp);

    const support::LogCapture log("commandsender");
    const auto hidden = kirohost::hideMainContext();
    manager.returnToken(manager.checkoutToken());  // nobody to wake: silent
    EXPECT_TRUE(isEmpty());
    EXPECT_EQ(log.size(), 0U);
}

TEST_F(Token, StaysWhenThereIsNoEventCallback) {
    Manager mute(nullptr);
    const auto token = mute.checkoutToken();
    EXPECT_THROW(mute.returnToken(token), std::bad_function_call);
    EXPECT_FALSE(mute.haveAllTokensReturned()) << "and no mutex is held";
    mute.enableTimeStampLogging(true);
    EXPECT_TRUE(wakeUps().empty());
}

TEST_F(Token, ReturnsFromSeveralThreadsWhileTheInterpreterChecksOut) {
    constexpr int kRounds = 200;
    manager.enableTimeStampLogging(true);
    support::Collector<CompletionToken> sent;
    const auto reply = [&](std::size_t seen) {
        for (; seen <= kRounds; ++seen) {
            sent.awaitSize(seen);
            manager.returnToken(sent.all()[seen - 1]);
            static_cast<void>(manager.isTimeStampLoggingEnabled());
        }
    };
    std::thread first(reply, 1U);
    std::thread second(reply, 1U);
    for (int i = 0; i < kRounds; ++i) {
        sent.add(manager.checkoutToken());
        static_cast<void>(manager.haveAllTokensReturned());
        static_cast<void>(manager.discardTimedOutTokens());
    }
    first.join();
    second.join();
    EXPECT_TRUE(isEmpty()) << "the last one came back";
    const auto returned = events.all();
    EXPECT_EQ(std::set<std::string>(returned.begin(), returned.end()).size(), returned.size())
        << "none twice";
    EXPECT_EQ(manager.getTimeStampLog().size(), returned.size());
    EXPECT_EQ(wakeUps().size(), returned.size());
}

}  // namespace
