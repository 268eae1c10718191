// What only the stand-in's interpreter has: VMs made at will, tasks that are run by hand.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "bedrock/usm/thisthread.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
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

template <typename Function>
auto enqueue(taskrouter::TaskRouter& router, WhenToDequeue when, const std::string& source,
             Function function) {
    using Result = decltype(function());
    taskrouter::PackagedTaskIIP<Result> task({std::move(function)}, source);
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

TEST_F(InterpreterTest, RunsWhatTasksQueueAndLooksAtTheConditionBetween) {
    const auto router = routerOf(vm.context());
    std::function<void()> queueAgain = [&] {
        ran.emplace_back("again");
        (void)enqueue(*router, WhenToDequeue::kWhenIdle, "", queueAgain);
    };
    queueAgain();
    // A task that queues itself for ever does not keep the wait from its condition.
    waitUntil([this] { return ran.size() == 5; });
    queueAgain = [] {};
    EXPECT_EQ(kirohost::runPendingTasks(), 2U);
}

TEST(Vm, TakesItsTasksAndItsStorageWithIt) {
    using bedrock::usm::thisthread::findOrInsert;
    struct Storage {
        ~Storage() {
            if (gone != nullptr) *gone = graphics_util::getContextQCRID();
        }
        QcrID* gone = nullptr;
    };
    auto vm = std::make_unique<kirohost::Vm>();
    const auto context = vm->context();
    QcrID destroyedIn;
    {
        const auto binding = vm->bindThisThread();
        findOrInsert<Storage>().gone = &destroyedIn;
    }
    const auto router = routerOf(context);
    auto before = enqueue(*router, WhenToDequeue::kWhenIdle, "", [] { return 1; });
    vm.reset();
    EXPECT_EQ(destroyedIn, context);
    EXPECT_EQ(routerOf(context), nullptr);
    auto after = enqueue(*router, WhenToDequeue::kWhenIdle, "", [] { return 1; });
    EXPECT_THROW(before.get(), boost::broken_promise);
    EXPECT_THROW(after.get(), boost::broken_promise);
}

}  // namespace
