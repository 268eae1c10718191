// What only the stand-in has: VMs made at will, a prompt, and bounds of its history.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "graphics_util/getContextQCRID.hpp"
#include "kirohost/Controls.hpp"
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

TEST(LogHistory, KeepsTheNewestWithinItsEntriesAndItsBytes) {
    auto& logger = kiroutils::Logger::instance();
    const std::string name = "test/history";
    logger.setHistoryEnabled(name, true, 3, false);
    logger.setMaxHistoryBytes(8);
    const std::pair<std::string, std::vector<std::string>> steps[] = {
        {"aaaa", {"aaaa"}},
        {"bbbb", {"aaaa", "bbbb"}},
        {"c", {"bbbb", "c"}},
        {"longer than all", {"longer than all"}},
        {"", {""}},
        {"d", {"", "d"}},
        {"e", {"", "d", "e"}},
        {"f", {"d", "e", "f"}}};
    for (const auto& [text, kept] : steps) {
        logger.log(name, text);
        EXPECT_EQ(logger.history(name), kept) << text;
    }
    logger.setMaxHistoryBytes(std::size_t{16} << 20U);
    logger.setHistoryEnabled(name, false, 0, false);
}

}  // namespace
