#pragma once

#include <boost/signals2/connection.hpp>
#include <functional>

#include "kirohost/Export.hpp"

namespace bedrock::memmgr::leaks {

/// Registers `listener` for the event that is sent before a memory snapshot is taken. It runs on
/// the thread that takes the snapshot; it stays registered while the connection is. Any thread.
KIROHOST_EXPORT boost::signals2::connection registerListenerForSnapshotEvent(
    std::function<void()> listener);

}  // namespace bedrock::memmgr::leaks
