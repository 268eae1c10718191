#include "BootstrappingStateMachine.hpp"

#include <chrono>
#include <utility>

#include "kiro/web/binary/BinaryDataSender.hpp"
#include "kiroutils/Logger.hpp"

namespace kiro::web {

using StateMachine = BootstrappingCommandSender::Impl::StateMachine;

StateMachine::StateMachine(const std::string& name) : fName(name) {
    log("Created");
    const annotated::Lock lock(fMutex);
    setBootstrapState(std::make_unique<QueueState>().release());
}

StateMachine::~StateMachine() {
    log("Destroyed");
    {
        const annotated::Lock lock(fMutex);
        fAsyncTaskCache.clear();
        fCurrentState.reset();
        fBinarySender.reset();
    }
    fGone.set_value();
}

void StateMachine::channelReady(ChannelInfo info) {
    log("channelReady");
    const annotated::Lock lock(fMutex);
    setBootstrapState(fCurrentState->channelReady(info, fBinarySender, fName));
    fChannelInfo = info;
}

void StateMachine::sendCommand(JSONPayload&& payload) {
    execute(std::make_shared<JSONPayloadSenderTask>(std::move(payload)));
}

void StateMachine::sendBinaryData(binary::BinaryDataPayload&& payload) {
    execute(std::make_shared<BinaryPayloadSenderTask>(std::move(payload)));
}

void StateMachine::execute(std::shared_ptr<PayloadSenderTask> task) {
    const annotated::Lock lock(fMutex);
    setBootstrapState(fCurrentState->execute(std::move(task), fBinarySender, fName));
}

void StateMachine::sendBinaryDataAsync(binary::BinaryDataPayload&& payload) {
    auto task = std::make_shared<BinaryPayloadSenderTask>(std::move(payload));
    const annotated::Lock lock(fMutex);
    BootstrapState* next = nullptr;
    // Room for the future first: once the send has started, keeping it must not fail.
    fAsyncTaskCache.emplace_back();
    try {
        fAsyncTaskCache.back() =
            fCurrentState->asyncExecute(std::move(task), next, fBinarySender, fName);
    } catch (...) {
        fAsyncTaskCache.pop_back();
        throw;
    }
    if (!fAsyncTaskCache.back().valid()) fAsyncTaskCache.pop_back();
    setBootstrapState(next);
}

void StateMachine::setBinaryChannelName(const std::string& name) {
    if (name == fBinaryChannelName) return;
    auto newName = name;
    fBinarySender = name.empty() ? nullptr : binary::createBinaryDataSender(name);
    // Last: a channel whose sender could not be made can be named again.
    fBinaryChannelName = std::move(newName);
}

void StateMachine::removeFinishedAsyncTasksFromCache() {
    auto& cache = fAsyncTaskCache;
    std::size_t i = 0;
    while (i < cache.size()) {
        const bool finished = cache[i].valid() && cache[i].wait_for(std::chrono::seconds(0)) ==
                                                      std::future_status::ready;
        if (!finished) {
            ++i;
        } else if (i + 1 == cache.size()) {
            cache.pop_back();
            // From the start: what was still running when it was passed may have ended meanwhile.
            i = 0;
        } else {
            cache[i] = std::move(cache.back());
            cache.pop_back();
        }
    }
}

void StateMachine::setBootstrapState(BootstrapState* next) {
    if (next == nullptr || next == fCurrentState.get()) return;
    auto owned = std::unique_ptr<BootstrapState>(next);
    log("setBootstrapState ", owned->stateName());
    fCurrentState = std::move(owned);
    fReadyStatus = fCurrentState->isPublishState();
}

void StateMachine::log(const char* event, const char* more) const noexcept {
    try {
        kiroutils::Logger::instance().log(
            "commandsender", "BootstrappingCommandSender(" + fName + "): " + event + more);
    } catch (...) {  // what was sent stays sent, and its sender must not think otherwise
    }
}

}  // namespace kiro::web
