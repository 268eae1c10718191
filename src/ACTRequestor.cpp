#include "kiro/ACTRequestor.hpp"

#include <utility>

#include "CompletionTokenManager.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"

namespace kiro {

namespace catalog = component_Quarn::catalog_graphics;
using kiroutils::CompletionToken;

namespace {

/// Writes one event record: `head`, and of the event whatever `head` does not say already.
void writeEvent(const std::string& loggerName, bedrock::json::Object head,
                ACTRequestor::EventData event) {
    head.merge(event);
    kiroutils::Logger::instance().log(loggerName, bedrock::json::serialize(std::move(head)));
}

ACTRequestor::EventData tokenData(const CompletionToken& token) {
    ACTRequestor::EventData data;
    data.emplace("Token Id", token.convertToString());
    return data;
}

}  // namespace

struct ACTRequestor::Impl {
    Impl(const std::string& loggerName, const std::string& source, const std::string& channel)
        : logFunction([loggerName, head = bedrock::json::Object{{"LogType", "Server"},
                                                                {"Source", source},
                                                                {"Channel", channel}}](
                          EventData event) { writeEvent(loggerName, head, std::move(event)); }),
          name(source + "(" + channel + ")"),
          tokenManager(std::make_shared<CompletionTokenManager>(logFunction)) {}

    void log(std::string event, EventData eventData) const {
        EventData record;
        record.emplace("Event", std::move(event));
        record.emplace("EventData", std::move(eventData));
        logFunction(std::move(record));
    }

    std::function<void(EventData)> logFunction;
    std::string name;
    std::string annotation;
    std::shared_ptr<CompletionTokenManager> tokenManager;
};

ACTRequestor::ReturnTokenInterface::~ReturnTokenInterface() = default;

ACTRequestor::ACTRequestor(const std::string& loggerName, const std::string& source,
                           const std::string& channel)
    : fImpl(std::make_unique<Impl>(loggerName, source, channel)) {}

ACTRequestor::~ACTRequestor() = default;

std::vector<ACTRequestor::TimeStamps> ACTRequestor::getTimeStampLog() const {
    return fImpl->tokenManager->getTimeStampLog();
}

CompletionToken ACTRequestor::checkoutToken() {
    auto token = fImpl->tokenManager->checkoutToken();
    fImpl->log("checkoutToken", tokenData(token));
    return token;
}

void ACTRequestor::sendACT(const CompletionToken& token) {
    fImpl->log("sendACT", tokenData(token));
    doSendACT(token);
}

CompletionToken ACTRequestor::sendACT() {
    auto token = checkoutToken();
    sendACT(token);
    return token;
}

void ACTRequestor::returnToken(const CompletionToken& token) const {
    fImpl->tokenManager->returnToken(token);
}

std::shared_ptr<ACTRequestor::ReturnTokenInterface> ACTRequestor::getReturnTokenInterface() {
    return fImpl->tokenManager;
}

bool ACTRequestor::isACTPending() const {
    discardTimedOutTokens();
    return !fImpl->tokenManager->haveAllTokensReturned();
}

void ACTRequestor::discardTimedOutTokens() const {
    const auto token = fImpl->tokenManager->discardTimedOutTokens();
    if (token.isDefaultToken()) return;
    const auto timeout = std::to_string(fImpl->tokenManager->getTimeout());
    log("Timeout", {{"Timeout", timeout}, {"ACT", token.convertToString()}});
    qxWarningMsgId(bedrock::core::messageId<catalog::key_timeoutDuringDrawnow>(),
                   {getDetailsForCustomerTimeoutWarning()});
    // The host's hook belongs to the internal warning, deliberately: no hook without it.
    if (!GraphicsState::isAtOstrel()) return;
    qxWarningMsgId(
        bedrock::core::messageId<catalog::key_drawnowTimeout>(),
        {timeout, fImpl->name, token.convertToString(), getDetailsForInternalTimeoutWarning()});
    GraphicsState::kiroInvokeDrawnowTimeoutCallback();
}

void ACTRequestor::discardAllTokens() {
    fImpl->tokenManager->discardAllTokens();
    log("All drawnow tokens discarded", {});
}

std::string ACTRequestor::getAnnotation() const { return fImpl->annotation; }

void ACTRequestor::setAnnotation(std::string annotation) {
    fImpl->annotation = std::move(annotation);
}

void ACTRequestor::enableTimeStampLogging(bool enable) {
    fImpl->tokenManager->enableTimeStampLogging(enable);
}

bool ACTRequestor::isTimeStampLoggingEnabled() const {
    return fImpl->tokenManager->isTimeStampLoggingEnabled();
}

void ACTRequestor::clearTimeStampLog() { fImpl->tokenManager->clearTimeStampLog(); }

bool ACTRequestor::hasTimeStamps() const { return fImpl->tokenManager->hasTimeStamps(); }

void ACTRequestor::log(const std::string& event, const EventData& eventData) const {
    fImpl->log(event, eventData);
}

std::string ACTRequestor::getDetailsForInternalTimeoutWarning() const { return {}; }

}  // namespace kiro
