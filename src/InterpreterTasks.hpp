#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bedrock/core/except/Exception.hpp"
#include "qnutil/contextmgr/QcrID.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace kiro {

/// Queues `function` for the interpreter thread of `context`, tagged with `source`, and returns
/// without waiting. Any thread. When the context has no task router, the future holds a
/// `taskrouter::RuntimeException` ("No TaskRouter available", status 2) instead.
boost::future<void> enqueueOnInterpreter(qnutil::contextmgr::QcrID context,
                                         std::function<void()> function, const char* source);

}  // namespace kiro
