// What only the stand-in has: VMs made at will, tasks that are run by hand, observers, policies.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "bedrock/core/diag/assertion.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "qvm/messages.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace {

using kiroutils::KiroBlockingOperation;
using kiroutils::KiroTerminatingCondition;
using qnutil::contextmgr::QcrID;
using taskrouter::WhenToDequeue;

using Lines = std::vector<std::string>;

std::shared_ptr<taskrouter::TaskRouter> routerOf(QcrID context) {
    return qvm::detail::getTaskRouterAndSinks(context, {}).router;
}

auto enqueue(taskrouter::TaskRouter& router, WhenToDequeue when, const std::string& source,
             std::function<void()> function) {
    taskrouter::PackagedTaskIIP<void> task({std::move(function)}, source);
    return router.enqueueWithFuture(std::move(task), {when, ""}, qvm::detail::createID());
}

void waitUntil(std::function<bool()> condition, std::function<void()> pump = nullptr) {
    KiroBlockingOperation::waitOrThrow(
        std::make_unique<KiroTerminatingCondition>("drawing", std::move(condition),
                                                   std::chrono::seconds::max()),
        std::move(pump));
}

class InterpreterTest : public testing::Test {
  protected:
    auto write(const std::string& line, WhenToDequeue when) {
        return enqueue(*routerOf(vm.context()), when, line, [this, line] { ran.push_back(line); });
    }

    kirohost::Vm vm;
    const kirohost::Scope binding = vm.bindThisThread();
    Lines ran;
};

TEST_F(InterpreterTest, KeepsTasksForThePromptOutOfAWait) {
    (void)write("prompt 1", WhenToDequeue::kAtPrompt);
    (void)write("idle 1", WhenToDequeue::kWhenIdle);
    (void)write("prompt 2", WhenToDequeue::kAtPrompt);
    (void)write("idle 2", WhenToDequeue::kWhenIdle);
    const auto pending = kirohost::pendingTasks(vm.context());
    ASSERT_EQ(pending.size(), 4U);
    EXPECT_EQ(pending[1].source, "idle 1");
    EXPECT_EQ(pending[1].whenToDequeue, 1);
    waitUntil([this] { return ran.size() >= 2; }, [] { kirohost::runPendingTasks(); });
    EXPECT_EQ(ran, (Lines{"idle 1", "idle 2"}));
    EXPECT_EQ(kirohost::runPendingTasks(), 2U);
    EXPECT_EQ(ran, (Lines{"idle 1", "idle 2", "prompt 1", "prompt 2"}));
}

TEST(Vm, TakesItsTasksWithIt) {
    auto vm = std::make_unique<kirohost::Vm>();
    const auto context = vm->context();
    const auto router = routerOf(context);
    auto before = enqueue(*router, WhenToDequeue::kWhenIdle, "", [] {});
    vm.reset();
    EXPECT_EQ(routerOf(context), nullptr);
    auto after = enqueue(*router, WhenToDequeue::kWhenIdle, "", [] {});
    EXPECT_THROW(before.get(), boost::broken_promise);
    EXPECT_THROW(after.get(), boost::broken_promise);
}

TEST(Observers, AreNotCalledAfterTheirScopeEvenInsideARecord) {
    Lines seen;
    kirohost::Scope second;
    const auto first = kirohost::observeLog([&](const auto& record) {
        seen.push_back(record.logger + " " + record.text);
        second = kirohost::Scope();
    });
    second = kirohost::observeLog([&](const auto&) { seen.emplace_back("second"); });
    kiroutils::Logger::instance().log("l", "text");
    EXPECT_EQ(seen, Lines{"l text"});
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

}  // namespace
