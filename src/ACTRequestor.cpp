#include "kiro/ACTRequestor.hpp"

#include <functional>
#include <utility>

#include "CompletionTokenManager.hpp"
#include "EventLog.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"
#include "records/EventRecord.hpp"

namespace kiro {

namespace catalog = component_Quarn::catalog_graphics;
using kiroutils::CompletionToken;

struct ACTRequestor::Impl {
    Impl(const std::string& loggerName, const std::string& source, const std::string& channel)
        : fLogFunction(makeLogFunction(loggerName, source, channel)),
          fLoggerName(loggerName),
          fName(source + "(" + channel + ")"),
          fTokenManager(std::make_shared<CompletionTokenManager>(fLogFunction)) {}

    /// Writes one event record: the members that all share, and of the event whatever they do not
    /// say already.
    static std::function<void(EventData)> makeLogFunction(const std::string& loggerName,
                                                          const std::string& source,
                                                          const std::string& channel) {
        return [loggerName, head = records::eventHead<bedrock::json::Object>(
                                records::kServer, source, channel)](EventData event) {
            auto& logger = kiroutils::Logger::instance();
            if (!isRead(logger, loggerName)) return;
            auto record = head;
            record.merge(event);
            logger.log(loggerName, bedrock::json::serialize(std::move(record)));
        };
    }

    void log(const std::string& event, EventData eventData) const {
        EventData record;
        record.emplace(records::kEvent, event);
        record.emplace(records::kEventData, std::move(eventData));
        fLogFunction(std::move(record));
    }

    void logToken(const char* event, const CompletionToken& token) const {
        if (!isRead(kiroutils::Logger::instance(), fLoggerName)) return;
        log(event, {{"Token Id", token.convertToString()}});
    }

    const std::function<void(EventData)> fLogFunction;
    const std::string fLoggerName;
    const std::string fName;
    std::string fAnnotation;
    const std::shared_ptr<CompletionTokenManager> fTokenManager;
};

ACTRequestor::ReturnTokenInterface::~ReturnTokenInterface() = default;

ACTRequestor::ACTRequestor(const std::string& loggerName, const std::string& source,
                           const std::string& channel)
    : fImpl(std::make_unique<Impl>(loggerName, source, channel)) {}

ACTRequestor::~ACTRequestor() = default;

std::vector<ACTRequestor::TimeStamps> ACTRequestor::getTimeStampLog() const {
    return fImpl->fTokenManager->getTimeStampLog();
}

CompletionToken ACTRequestor::checkoutToken() {
    auto token = fImpl->fTokenManager->checkoutToken();
    fImpl->logToken("checkoutToken", token);
    return token;
}

void ACTRequestor::sendACT(const CompletionToken& token) {
    fImpl->logToken("sendACT", token);
    doSendACT(token);
}

CompletionToken ACTRequestor::sendACT() {
    auto token = checkoutToken();
    sendACT(token);
    return token;
}

void ACTRequestor::returnToken(const CompletionToken& token) const {
    fImpl->fTokenManager->returnToken(token);
}

std::shared_ptr<ACTRequestor::ReturnTokenInterface> ACTRequestor::getReturnTokenInterface() {
    return fImpl->fTokenManager;
}

bool ACTRequestor::isACTPending() const {
    discardTimedOutTokens();
    return !fImpl->fTokenManager->haveAllTokensReturned();
}

void ACTRequestor::discardTimedOutTokens() const {
    const auto token = fImpl->fTokenManager->discardTimedOutTokens();
    if (token.isDefaultToken()) return;
    const auto timeout = std::to_string(fImpl->fTokenManager->getTimeout());
    log("Timeout", {{"Timeout", timeout}, {"ACT", token.convertToString()}});
    qxWarningMsgId(bedrock::core::messageId<catalog::key_timeoutDuringDrawnow>(),
                   {getDetailsForCustomerTimeoutWarning()});
    // The rest is for the host's own developers, the hook included: it serves the internal report.
    if (!GraphicsState::isAtOstrel()) return;
    qxWarningMsgId(
        bedrock::core::messageId<catalog::key_drawnowTimeout>(),
        {timeout, fImpl->fName, token.convertToString(), getDetailsForInternalTimeoutWarning()});
    GraphicsState::kiroInvokeDrawnowTimeoutCallback();
}

void ACTRequestor::discardAllTokens() {
    fImpl->fTokenManager->discardAllTokens();
    log("All drawnow tokens discarded", {});
}

std::string ACTRequestor::getAnnotation() const { return fImpl->fAnnotation; }

void ACTRequestor::setAnnotation(std::string annotation) {
    fImpl->fAnnotation = std::move(annotation);
}

void ACTRequestor::enableTimeStampLogging(bool enable) {
    fImpl->fTokenManager->enableTimeStampLogging(enable);
}

bool ACTRequestor::isTimeStampLoggingEnabled() const {
    return fImpl->fTokenManager->isTimeStampLoggingEnabled();
}

void ACTRequestor::clearTimeStampLog() { fImpl->fTokenManager->clearTimeStampLog(); }

bool ACTRequestor::hasTimeStamps() const { return fImpl->fTokenManager->hasTimeStamps(); }

void ACTRequestor::log(const std::string& event, const EventData& eventData) const {
    fImpl->log(event, eventData);
}

std::string ACTRequestor::getDetailsForInternalTimeoutWarning() const { return {}; }

}  // namespace kiro
