#include "InterpreterTasks.hpp"

#include <utility>

#include "qvm/detail/taskRouterAccess.hpp"

namespace kiro {

namespace {
/// The execution status of a task that has no interpreter.
constexpr int kNowhereToRun = 2;
}  // namespace

boost::future<void> enqueueOnInterpreter(qnutil::contextmgr::QcrID context,
                                         std::function<void()> function, const char* source) {
    const auto id = qvm::detail::createID();
    taskrouter::RunOptions options;
    options.whenToDequeue = taskrouter::WhenToDequeue::kWhenIdle;
    const auto access = qvm::detail::getTaskRouterAndSinks(context, options);
    if (access.router == nullptr) {
        return boost::make_exceptional_future<void>(
            taskrouter::RuntimeException("No TaskRouter available", kNowhereToRun));
    }
    taskrouter::PackagedTaskIIP<void> task({std::move(function)}, source);
    return access.router->enqueueWithFuture(std::move(task), options, id);
}

bool isNotQueued(boost::future<void>& future) {
    if (!future.has_exception()) return false;
    try {
        future.get();
    } catch (const taskrouter::RuntimeException& exception) {
        return exception.status() == kNowhereToRun;
    } catch (...) {  // what the task threw; it has nobody to tell
    }
    return false;
}

}  // namespace kiro
