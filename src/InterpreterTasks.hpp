#pragma once

#include <functional>

#include "qnutil/contextmgr/QcrID.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace kiro {

/// Queues `function` for the interpreter thread of `context`, tagged with `source`, and returns
/// without waiting. Any thread. When the context has no task router, the future holds a
/// `taskrouter::RuntimeException` ("No TaskRouter available", status 2) instead.
boost::future<void> enqueueOnInterpreter(qnutil::contextmgr::QcrID context,
                                         std::function<void()> function, const char* source);

/// Whether `future`, from the function above, says that there was no task router. A task that has
/// run already and threw is another matter.
bool isNotQueued(boost::future<void>& future);

}  // namespace kiro
