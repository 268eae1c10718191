#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kiro/Export.hpp"

namespace kiro::web {

class ConnectionStatus;

/// The blocking wait on a client.
class KIROWEB_EXPORT WebBlockingOperation {
  public:
    /// Waits on the interpreter thread until `condition` holds, running `pump` and the
    /// interpreter's tasks meanwhile. A reconnection, a new view and the time-out of 1200 s end it
    /// with an exception, see `WebTerminatingCondition`; what `condition` and `pump` throw passes.
    static void waitOrThrow(const std::string& name, std::function<bool()> condition,
                            std::shared_ptr<ConnectionStatus> status, std::function<void()> pump);
};

}  // namespace kiro::web
