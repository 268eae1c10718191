#include "InterpreterWarnings.hpp"

#include <new>
#include <utility>

#include "InterpreterTasks.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"

namespace kiro::web::binary {

void postWarning(const bedrock::core::MessageId& id, std::vector<std::string> arguments,
                 const char* source) {
    auto future = enqueueOnInterpreter(
        graphics_util::getContextQCRID(),
        [id, arguments = std::move(arguments)] { qxWarningMsgId(id, arguments); }, source);
    if (isNotQueued(future)) {
        kiroutils::Logger::instance().log(
            "commandsender",
            "warning " + id.component + ":" + id.key + " not shown: no TaskRouter");
    }
}

void postOutOfMemoryWarning(const char* source) {
    using component_Quarn::catalog_graphics::key_GraphicsBinaryOOM;
    try {
        postWarning(bedrock::core::messageId<key_GraphicsBinaryOOM>(), {}, source);
    } catch (const std::bad_alloc&) {  // the client's notice, which follows, matters more
    }
}

}  // namespace kiro::web::binary
