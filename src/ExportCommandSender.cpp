#include "kiro/web/ExportCommandSender.hpp"

#include <utility>

#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace kiro::web {

struct ExportCommandSender::Impl {
    bool fEnabled = true;
    std::vector<std::string> fCommands;
};

ExportCommandSender::ExportCommandSender() : fImpl(std::make_unique<Impl>()) {}

ExportCommandSender::~ExportCommandSender() = default;

void ExportCommandSender::setBinaryChannelName(const std::string& /*name*/) {}
void ExportCommandSender::removeFinishedAsyncTasksFromCache() {}
void ExportCommandSender::setEnable(bool enable) { fImpl->fEnabled = enable; }
bool ExportCommandSender::isEnabled() const { return fImpl->fEnabled; }

const std::vector<std::string>& ExportCommandSender::getCommandsAsStrings() const {
    return fImpl->fCommands;
}

void ExportCommandSender::reset() { fImpl->fCommands.clear(); }

void ExportCommandSender::doSendCommand(JSONPayload&& payload) {
    fImpl->fCommands.push_back(payload.convertToString());
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
