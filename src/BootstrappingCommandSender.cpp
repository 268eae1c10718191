#include "kiro/web/BootstrappingCommandSender.hpp"

#include <utility>

#include "BootstrappingStateMachine.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"

namespace kiro::web {

using Impl = BootstrappingCommandSender::Impl;

namespace {

/// The number 1 and nothing else; a boolean does not read as an integer.
bool isOne(const JSONObject& message, const std::string& key) {
    int value = 0;
    return message.getValue(key, value) && value == 1;
}

/// A message that is no JSON object says that both are off; it is an announcement all the same.
ChannelInfo readAnnouncement(const PayloadInterface& payload) {
    const JSONObject message(payload.convertToString());
    return {isOne(message, "binaryChannelStatus"), isOne(message, "useFastBinary")};
}

PubSubInterface::CallbackType createChannelReadyLambda(std::weak_ptr<Impl::StateMachine> weak) {
    return
        [weak = std::move(weak)](const std::string& /*channel*/, const PayloadInterface& payload) {
            const auto info = readAnnouncement(payload);
            if (const auto stateMachine = weak.lock()) stateMachine->channelReady(info);
        };
}

}  // namespace

Impl::Impl(const std::string& name, const std::string& commandListener)
    : fStateMachine(std::make_shared<StateMachine>(name)), fCommandListener(commandListener) {
    fReadySubscription = subscribe(PubSubFactory::pubsubInstance(), name + "/channelReady",
                                   createChannelReadyLambda(fStateMachine));
}

Impl::~Impl() {
    // The machine before the subscription: an announcement that arrives meanwhile finds nobody.
    // One that is being handled shares the machine, which then goes on that thread.
    const auto gone = fStateMachine->gone();
    fStateMachine.reset();
    gone.wait();
    fReadySubscription.reset();
}

bool Impl::getReadyStatus() const { return fStateMachine->getReadyStatus(); }
bool Impl::getUsingBinary() const { return fStateMachine->getUsingBinary(); }
bool Impl::getUsingFastBinary() const { return fStateMachine->getUsingFastBinary(); }
void Impl::setEnable(bool enable) { fEnabled = enable; }
bool Impl::isEnabled() const { return fEnabled; }

void Impl::sendCommand(JSONPayload&& payload) {
    if (!fEnabled) return;
    if (!fCommandListener.empty()) payload.addDataToPayload("commandlistener", fCommandListener);
    fStateMachine->sendCommand(std::move(payload));
}

void Impl::sendBinaryData(binary::BinaryDataPayload&& payload) {
    fStateMachine->sendBinaryData(std::move(payload));
}

void Impl::sendBinaryDataAsync(binary::BinaryDataPayload&& payload) {
    fStateMachine->sendBinaryDataAsync(std::move(payload));
}

void Impl::setBinaryChannelName(const std::string& name) {
    fStateMachine->setBinaryChannelName(name);
}

void Impl::removeFinishedAsyncTasksFromCache() {
    fStateMachine->removeFinishedAsyncTasksFromCache();
}

BootstrappingCommandSender::BootstrappingCommandSender(const std::string& name)
    : BootstrappingCommandSender(name, {}) {}

BootstrappingCommandSender::BootstrappingCommandSender(const std::string& name,
                                                       const std::string& commandListener)
    : fImpl(std::make_unique<Impl>(name, commandListener)) {}

BootstrappingCommandSender::~BootstrappingCommandSender() = default;

void BootstrappingCommandSender::setBinaryChannelName(const std::string& name) {
    fImpl->setBinaryChannelName(name);
}

void BootstrappingCommandSender::removeFinishedAsyncTasksFromCache() {
    fImpl->removeFinishedAsyncTasksFromCache();
}

bool BootstrappingCommandSender::queryCommandSenderReadyStatus() const {
    return fImpl->getReadyStatus();
}

bool BootstrappingCommandSender::queryUsingFastBinary() const {
    return fImpl->getUsingFastBinary();
}

bool BootstrappingCommandSender::queryUsingBinary() const { return fImpl->getUsingBinary(); }

void BootstrappingCommandSender::setEnable(bool enable) { fImpl->setEnable(enable); }

bool BootstrappingCommandSender::isEnabled() const { return fImpl->isEnabled(); }

void BootstrappingCommandSender::doSendCommand(JSONPayload&& payload) {
    fImpl->sendCommand(std::move(payload));
}

void BootstrappingCommandSender::doSendBinaryData(binary::BinaryDataPayload&& payload) {
    fImpl->sendBinaryData(std::move(payload));
}

void BootstrappingCommandSender::doSendBinaryDataAsync(binary::BinaryDataPayload&& payload) {
    fImpl->sendBinaryDataAsync(std::move(payload));
}

}  // namespace kiro::web
