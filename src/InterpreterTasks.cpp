#include "InterpreterTasks.hpp"

#include <utility>

#include "qvm/detail/taskRouterAccess.hpp"

namespace kiro {

boost::future<void> enqueueOnInterpreter(qnutil::contextmgr::QcrID context,
                                         std::function<void()> function, const char* source) {
    const auto id = qvm::detail::createID();
    taskrouter::RunOptions options;
    options.whenToDequeue = taskrouter::WhenToDequeue::kWhenIdle;
    const auto access = qvm::detail::getTaskRouterAndSinks(context, options);
    if (access.router == nullptr) {
        return boost::make_exceptional_future<void>(
            taskrouter::RuntimeException("No TaskRouter available", 2));
    }
    taskrouter::PackagedTaskIIP<void> task({std::move(function)}, source);
    return access.router->enqueueWithFuture(std::move(task), options, id);
}

}  // namespace kiro
