// What only the stand-in has: VMs made at will, the policy for assertions.

#include <gtest/gtest.h>

#include <memory>

#include "bedrock/core/diag/assertion.hpp"
#include "kirohost/Controls.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace {

std::shared_ptr<taskrouter::TaskRouter> routerOf(qnutil::contextmgr::QcrID context) {
    return qvm::detail::getTaskRouterAndSinks(context, {}).router;
}

auto enqueue(taskrouter::TaskRouter& router) {
    return router.enqueueWithFuture(taskrouter::PackagedTaskIIP<void>({[] {}}, ""),
                                    {taskrouter::WhenToDequeue::kWhenIdle, ""},
                                    qvm::detail::createID());
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
