#include "CompletionTokenManager.hpp"

#include <chrono>
#include <utility>

#include "InterpreterTasks.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiroutils/timestamp.hpp"
#include "records/EventRecord.hpp"

namespace kiro {

using Manager = ACTRequestor::CompletionTokenManager;
using kiroutils::CompletionToken;

namespace {
constexpr std::size_t kRoom = 100;
}

Manager::CompletionTokenManager(EventCallback eventCallback)
    : fEventCallback(std::move(eventCallback)), fContext(graphics_util::getContextQCRID()) {
    fTimeStampLog.reserve(kRoom);
}

Manager::~CompletionTokenManager() = default;

CompletionToken Manager::checkoutToken() {
    const annotated::Lock tokenLock(fTokenMutex);
    fCurrentToken = CompletionToken(fIDGenerator.nextID());
    fCheckoutTime = steadyNow();
    {
        const annotated::Lock timeStampLock(fTimeStampMutex);
        if (fTimeStampLoggingEnabled) {
            fCurrentToken.getTimeStamps().serverSend = kiroutils::timestamp();
        }
    }
    return fCurrentToken;
}

void Manager::returnToken(const CompletionToken& token) {
    const annotated::Lock tokenLock(fTokenMutex);
    if (fCurrentToken.isDefaultToken() || !(token == fCurrentToken)) return;
    const annotated::Lock timeStampLock(fTimeStampMutex);
    if (fTimeStampLoggingEnabled) recordTimeStampsLocked(token);
    bedrock::json::Object eventData;
    eventData.emplace("Token Id", token.convertToString());
    bedrock::json::Object event;
    event.emplace(records::kEvent, "return ACT");
    event.emplace(records::kEventData, std::move(eventData));
    fEventCallback(std::move(event));
    auto returned = std::exchange(fCurrentToken, CompletionToken());
    try {
        wakeUpQVM();
    } catch (...) {
        // Nobody would look whether it is back.
        fCurrentToken = std::move(returned);
        throw;
    }
}

void Manager::recordTimeStampsLocked(const CompletionToken& token) {
    fCurrentToken = token;
    fCurrentToken.getTimeStamps().serverReceive = kiroutils::timestamp();
    // The log stays as small as it can be, since a time-stamped session may last for hours: room
    // for 100 more, reserved anew by every append but the first. After a clear the difference
    // wraps round, and the vector grows by itself.
    if (fTimeStampLog.capacity() - kRoom < fTimeStampLog.size()) {
        fTimeStampLog.reserve(fTimeStampLog.size() + kRoom);
    }
    fTimeStampLog.push_back(fCurrentToken.getTimeStamps());
}

CompletionToken Manager::discardTimedOutTokens() {
    CompletionToken discarded;
    const annotated::Lock lock(fTokenMutex);
    const auto timeout = getTimeout();
    if (timeout != 0 && !fCurrentToken.isDefaultToken()) {
        // Whole seconds, strictly more: a time-out of 5 s ends after 6.
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::seconds>(steadyNow() - fCheckoutTime).count();
        if (timeout < elapsed) discarded = std::exchange(fCurrentToken, CompletionToken());
    }
    return discarded;
}

void Manager::discardAllTokens() {
    const annotated::Lock lock(fTokenMutex);
    fCurrentToken = CompletionToken();
}

bool Manager::haveAllTokensReturned() const {
    const annotated::Lock lock(fTokenMutex);
    return fCurrentToken.isDefaultToken();
}

std::int64_t Manager::getTimeout() { return GraphicsState::kiroGetDrawnowTimeout(); }

void Manager::enableTimeStampLogging(bool enable) {
    const annotated::Lock lock(fTimeStampMutex);
    fTimeStampLoggingEnabled = enable;
}

bool Manager::isTimeStampLoggingEnabled() const { return fTimeStampLoggingEnabled; }

void Manager::clearTimeStampLog() {
    const annotated::Lock lock(fTimeStampMutex);
    std::vector<TimeStamps>().swap(fTimeStampLog);
}

std::vector<ACTRequestor::TimeStamps> Manager::getTimeStampLog() const { return fTimeStampLog; }

bool Manager::hasTimeStamps() const { return !fTimeStampLog.empty(); }

void Manager::wakeUpQVM() const {
    enqueueOnInterpreter(
        fContext, [] {}, "src/ACTRequestor");
}

}  // namespace kiro
