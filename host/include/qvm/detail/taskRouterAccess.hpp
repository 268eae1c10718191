#pragma once

#include <cstdint>
#include <memory>

#include "kirohost/Export.hpp"
#include "qnutil/contextmgr/QcrID.hpp"

namespace taskrouter {
class TaskRouter;
struct RunOptions;
}  // namespace taskrouter

namespace qvm::detail {

/// A fresh task identifier. Any thread.
KIROHOST_EXPORT std::uint64_t createID();

struct TaskRouterAndSinks {
    /// Empty when the context is gone.
    std::shared_ptr<taskrouter::TaskRouter> router;
    /// Where the task's output goes. The stand-in has no sinks.
    std::shared_ptr<void> sinks;
};

/// The router of `context`. Any thread; never throws for an unknown context.
KIROHOST_EXPORT TaskRouterAndSinks getTaskRouterAndSinks(qnutil::contextmgr::QcrID context,
                                                         const taskrouter::RunOptions& options);

}  // namespace qvm::detail
