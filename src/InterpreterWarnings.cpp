#include "InterpreterWarnings.hpp"

#include <utility>

#include "InterpreterTasks.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"

namespace kiro::web::binary {

void postWarning(const bedrock::core::MessageId& id, std::vector<std::string> arguments,
                 const char* source) {
    const auto future = enqueueOnInterpreter(
        graphics_util::getContextQCRID(),
        [id, arguments = std::move(arguments)] { qxWarningMsgId(id, arguments); }, source);
    // Only a task that was not queued, or has run already, has an exception by now.
    if (future.has_exception()) {
        kiroutils::Logger::instance().log(
            "commandsender",
            "warning " + id.component + ":" + id.key + " not shown: no TaskRouter");
    }
}

}  // namespace kiro::web::binary
