#include "Waking.hpp"

#include "qvm/detail/taskRouterAccess.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace kirofigures::detail {

void Waking::wake() const {
    const taskrouter::RunOptions options{taskrouter::WhenToDequeue::kWhenIdle, ""};
    const auto router = qvm::detail::getTaskRouterAndSinks(fContext, options).router;
    if (router == nullptr || fIsQueued->exchange(true)) return;
    try {
        router->enqueueWithFuture(
            taskrouter::PackagedTaskIIP<void>({[isQueued = fIsQueued] { *isQueued = false; }},
                                              "kirofigures::Window"),
            options, qvm::detail::createID());
    } catch (...) {
        *fIsQueued = false;  // the next one tries again
        throw;
    }
}

}  // namespace kirofigures::detail
