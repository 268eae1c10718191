#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "CompletionTokenManager.hpp"
#include "Fixture.hpp"
#include "graphics_util/getContextQCRID.hpp"

namespace {

using kiroutils::CompletionToken;
using namespace support;
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

    /// Expects `token` to change nothing.
    void expectIgnored(const CompletionToken& token) {
        const bool before = isEmpty();
        events.clear();
        manager.returnToken(token);
        EXPECT_EQ(isEmpty(), before);
        EXPECT_EQ(events.size(), 0U);
        EXPECT_TRUE(wakeUps().empty());
    }

    const Lines oneWakeUp{"src/ACTRequestor 1"};
    support::Collector<std::string> events;
    Manager manager{[this](Event event) {
        events.add(bedrock::json::serialize(bedrock::json::Object(std::move(event))));
    }};
};

TEST_F(Token, IsReturnedOnceAndByNoOther) {
    const auto replaced = manager.checkoutToken();
    const auto token = manager.checkoutToken();
    CompletionToken forged("");
    forged.getTimeStamps().serverSend = 7;
    for (const auto& other : {replaced, CompletionToken(), forged}) expectIgnored(other);
    EXPECT_FALSE(isEmpty());
    manager.returnToken(CompletionToken(token.convertToString()));
    EXPECT_TRUE(isEmpty());
    EXPECT_EQ(events.all(), Lines{R"({"Event":"return ACT","EventData":{"Token Id":")" +
                                  token.convertToString() + "\"}}"});
    EXPECT_EQ(wakeUps(), oneWakeUp);
    for (const auto& other : {token, CompletionToken(), forged}) expectIgnored(other);
}

TEST_F(Token, TimesOutAfterMoreWholeSecondsThanTheTimeOut) {
    struct {
        std::int64_t timeout;
        long milliseconds;
        bool discarded;
    } const cases[] = {{5, 5999, false}, {5, 6000, true}, {0, 1000000000, false}, {-1, 0, true}};
    const FakeClock clock;
    EXPECT_TRUE(manager.discardTimedOutTokens().isDefaultToken());
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.timeout) + " s, after ms " + std::to_string(c.milliseconds));
        const auto token = manager.checkoutToken();
        FakeClock::advance(std::chrono::milliseconds(c.milliseconds));
        const auto timeout = timeoutOf(c.timeout);  // a change counts at the next check
        const auto discarded = manager.discardTimedOutTokens();
        EXPECT_EQ(discarded == token, c.discarded);
        EXPECT_EQ(isEmpty(), c.discarded);
        if (c.discarded) expectIgnored(token);
    }
}

TEST_F(Token, WakesTheContextInWhichItsManagerWasMade) {
    kirohost::Vm vm;
    std::unique_ptr<Manager> theirs;
    {
        const auto bound = vm.bindThisThread();
        theirs = std::make_unique<Manager>([](Event) {});
        manager.returnToken(manager.checkoutToken());
        EXPECT_TRUE(wakeUps().empty());
    }
    EXPECT_EQ(wakeUps(), oneWakeUp);
    std::thread([&] { theirs->returnToken(theirs->checkoutToken()); }).join();
    EXPECT_TRUE(wakeUps().empty());
    {
        const auto bound = vm.bindThisThread();
        EXPECT_EQ(wakeUps(), oneWakeUp);
    }
}

}  // namespace
