#include "kiro/web/WebBlockingOperation.hpp"

#include <utility>

#include "kiro/web/WebTerminatingCondition.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"

namespace kiro::web {

void WebBlockingOperation::waitOrThrow(const std::string& name, std::function<bool()> condition,
                                       std::shared_ptr<ConnectionStatus> status,
                                       std::function<void()> pump) {
    kiroutils::KiroBlockingOperation::waitOrThrow(
        std::make_unique<WebTerminatingCondition>(name, std::move(condition), std::move(status)),
        std::move(pump));
}

}  // namespace kiro::web
