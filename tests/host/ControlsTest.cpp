// What only the stand-in has: VMs made at will, scopes, a clock, a policy for assertions, and an
// order of listeners.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bedrock/core/diag/assertion.hpp"
#include "bedrock/usm/thisthread.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/EventDispatcher.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "kiroutils/KiroTerminatingCondition.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace {

using taskrouter::WhenToDequeue;

std::shared_ptr<taskrouter::TaskRouter> routerOf(qnutil::contextmgr::QcrID context) {
    return qvm::detail::getTaskRouterAndSinks(context, {}).router;
}

auto enqueue(taskrouter::TaskRouter& router) {
    return router.enqueueWithFuture(taskrouter::PackagedTaskIIP<void>({[] {}}, ""),
                                    {WhenToDequeue::kWhenIdle, ""}, qvm::detail::createID());
}

TEST(Vm, TakesItsTasksWithIt) {
    auto vm = std::make_unique<kirohost::Vm>();
    const auto context = vm->context();
    const auto router = routerOf(context);
    auto before = enqueue(*router);
    vm.reset();
    EXPECT_EQ(routerOf(context), nullptr);
    auto after = enqueue(*router);
    EXPECT_THROW(before.get(), boost::broken_promise);
    EXPECT_THROW(after.get(), boost::broken_promise);
}

TEST(Tasks, ForThePromptDoNotRunInsideAWait) {
    std::vector<std::string> ran;
    const auto router = routerOf(graphics_util::getContextQCRID());
    for (const auto when : {WhenToDequeue::kAtPrompt, WhenToDequeue::kWhenIdle}) {
        const char* const name = when == WhenToDequeue::kAtPrompt ? "prompt" : "idle";
        (void)router->enqueueWithFuture(
            taskrouter::PackagedTaskIIP<void>({[&ran, name] { ran.emplace_back(name); }}, ""),
            {when, ""}, qvm::detail::createID());
    }
    kiroutils::KiroBlockingOperation::waitOrThrow(
        std::make_unique<kiroutils::KiroTerminatingCondition>(
            "test", [&ran] { return !ran.empty(); }, std::chrono::seconds::max()),
        nullptr);
    EXPECT_EQ(ran, std::vector<std::string>{"idle"});
    EXPECT_EQ(kirohost::runPendingTasks(), 1U);
    EXPECT_EQ(ran.back(), "prompt");
}

TEST(Vm, DestroysItsStorageInItsOwnContextTheYoungestFirst) {
    using bedrock::usm::thisthread::findOrInsert;
    static std::vector<std::pair<int, std::uint64_t>> destroyed;
    struct Older {
        ~Older() { destroyed.emplace_back(1, graphics_util::getContextQCRID().value); }
    };
    struct Younger {
        ~Younger() { destroyed.emplace_back(2, graphics_util::getContextQCRID().value); }
    };
    auto vm = std::make_unique<kirohost::Vm>();
    const auto context = vm->context().value;
    {
        const auto binding = vm->bindThisThread();
        (void)findOrInsert<Older>();
        (void)findOrInsert<Younger>();
    }
    vm.reset();
    EXPECT_EQ(destroyed, (std::vector<std::pair<int, std::uint64_t>>{{2, context}, {1, context}}));
}

TEST(Scopes, EndOnceAndAtOnceAlsoWhileObserversAreCalled) {
    int calls = 0;
    kirohost::Scope other;
    kirohost::Scope moved = kirohost::observeLog([&other](const auto&) { other = {}; });
    other = kirohost::observeLog([&calls](const auto&) { ++calls; });
    const kirohost::Scope ending(std::move(moved));
    kiroutils::Logger::instance().log("test", "text");
    EXPECT_EQ(calls, 0);
    int ends = 0;
    {
        kirohost::Scope from([&ends] { ++ends; });
        kirohost::Scope to(std::move(from));
        from = std::move(to);
        EXPECT_EQ(ends, 0);
    }
    EXPECT_EQ(ends, 1);
}

TEST(TimeOuts, PassAfterTheirWholeSecondsOnTheClockThatIsSet) {
    using std::chrono::milliseconds;
    std::chrono::steady_clock::time_point now;
    kirohost::setSteadyClock([&now] { return now; });
    kiroutils::KiroTerminatingCondition limited("test", nullptr, std::chrono::seconds(5));
    kiroutils::KiroTerminatingCondition endless("test", nullptr, std::chrono::seconds::max());
    now += milliseconds(4999);
    EXPECT_FALSE(limited.shouldTerminate());
    now += milliseconds(1);
    EXPECT_TRUE(limited.shouldTerminate());
    EXPECT_TRUE(limited.hasTimedOut());
    now += std::chrono::hours(24 * 365 * 100);
    EXPECT_FALSE(endless.shouldTerminate());
    kirohost::setSteadyClock(nullptr);
}

TEST(Assertions, EndTheProcessUnlessAPolicySaysOtherwise) {
    using bedrock::core::diag::assertionFailed;
    const auto fail = [] { assertionFailed("a != b", "src/X", 12, "void x()"); };
    {
        const auto policy =
            kirohost::setAssertionPolicy(kirohost::AssertionPolicy::kReport, nullptr);
        fail();
    }
    EXPECT_DEATH(fail(), "Assertion failed: a != b, src/X:12, void x\\(\\)\n$");
}

TEST(Dispatcher, CallsInTheOrderOfRegistrationThoseThatWereThereAndUpToAnException) {
    using kiroutils::EventDispatcher;
    EventDispatcher dispatcher;
    std::vector<std::string> heard;
    const auto hear = [&](const char* name, const char* who) {
        return dispatcher.createListener(
            name, [&heard, who](const auto&, const auto&) { heard.emplace_back(who); });
    };
    EventDispatcher::Listener made;
    const auto a = hear("/g/*", "wide");
    const auto b = hear("/g/x", "exact");
    const auto c = hear("/*", "all");
    const auto maker = dispatcher.createListener(
        "/g/x", [&](const auto&, const auto&) { made = hear("/g/x", "made"); });
    const auto d = hear("/g/x", "last");
    const auto thrower = dispatcher.createListener("/g/x", nullptr);
    const auto unreached = hear("/g/x", "unreached");
    EXPECT_THROW(dispatcher.send("/g/x", {}), std::bad_function_call);
    EXPECT_EQ(heard, (std::vector<std::string>{"wide", "exact", "all", "last"}));
}

}  // namespace
