#include "kiro/web/ExportCommandSender.hpp"

#include <utility>

#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace kiro::web {

struct ExportCommandSender::Impl {
    bool enabled = true;
    std::vector<std::string> commands;
};

ExportCommandSender::ExportCommandSender() : fImpl(std::make_unique<Impl>()) {}

ExportCommandSender::~ExportCommandSender() = default;

void ExportCommandSender::setBinaryChannelName(const std::string& /*name*/) {}
void ExportCommandSender::removeFinishedAsyncTasksFromCache() {}
void ExportCommandSender::setEnable(bool enable) { fImpl->enabled = enable; }
bool ExportCommandSender::isEnabled() const { return fImpl->enabled; }

const std::vector<std::string>& ExportCommandSender::getCommandsAsStrings() const {
    return fImpl->commands;
}

void ExportCommandSender::reset() { fImpl->commands.clear(); }

void ExportCommandSender::doSendCommand(JSONPayload&& payload) {
    fImpl->commands.push_back(payload.convertToString());
}

void ExportCommandSender::doSendBinaryData(binary::BinaryDataPayload&& payload) {
    JSONPayload message;
    payload.convertToJSONPayload(message);
    doSendCommand(std::move(message));
}

void ExportCommandSender::doSendBinaryDataAsync(binary::BinaryDataPayload&& payload) {
    doSendBinaryData(std::move(payload));
}

}  // namespace kiro::web
