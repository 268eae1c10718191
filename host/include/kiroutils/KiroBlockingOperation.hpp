#pragma once

#include <functional>
#include <memory>

#include "kirohost/Export.hpp"
#include "kiroutils/KiroTerminatingCondition.hpp"

namespace kiroutils {

/// The interpreter's blocking wait.
class KIROHOST_EXPORT KiroBlockingOperation {
  public:
    /// Waits on the calling interpreter thread until the condition tells it to stop. Each round
    /// asks `shouldTerminate`, then `doThrowIfError`, then runs the tasks that are queued for the
    /// thread's context and `pump` (if not empty), and sleeps until a task is queued, at most
    /// 10 ms. What the condition, `doThrowIfError` or `pump` throws leaves the wait; what a task
    /// throws goes into the task's future.
    /// When the time has passed: TerminatingConditionException, whose text says so.
    /// REQUIRES: `condition` is not empty.
    static void waitOrThrow(std::unique_ptr<KiroTerminatingCondition> condition,
                            std::function<void()> pump);
};

}  // namespace kiroutils
