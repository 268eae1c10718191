#pragma once

#include <string>
#include <vector>

#include "bedrock/core/except/Exception.hpp"

namespace kiro::web::binary {

/// Has the interpreter thread of the calling thread's context issue the warning `id`, as a task
/// tagged with `source`. Returns at once; any thread. When there is no interpreter to ask, one log
/// line says so instead.
void postWarning(const bedrock::core::MessageId& id, std::vector<std::string> arguments,
                 const char* source);

/// As above, that a block could not be sent for lack of memory. Without the memory to post even
/// that, nothing happens.
void postOutOfMemoryWarning(const char* source);

}  // namespace kiro::web::binary
