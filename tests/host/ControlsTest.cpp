// What only the stand-in has: VMs made at will, the policy for assertions, an order of listeners.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bedrock/core/diag/assertion.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/EventDispatcher.hpp"
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
