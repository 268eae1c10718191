#pragma once

#include <functional>

#include "graphics_util/getContextQCRID.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace kirogateway {

/// Queues an empty task of the interpreter's that this is made in, so that a wait there looks at
/// its condition. The result may be called on any thread.
[[nodiscard]] inline std::function<void()> interpreterWaking(const char* who) {
    return [context = graphics_util::getContextQCRID(), who] {
        const taskrouter::RunOptions options{taskrouter::WhenToDequeue::kWhenIdle, ""};
        const auto router = qvm::detail::getTaskRouterAndSinks(context, options).router;
        if (router == nullptr) return;
        router->enqueueWithFuture(taskrouter::PackagedTaskIIP<void>({[] {}}, who), options,
                                  qvm::detail::createID());
    };
}

}  // namespace kirogateway
