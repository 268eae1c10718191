#include "DrawnowTimeoutLogger.hpp"

#include <string>
#include <utility>

#include "EventLog.hpp"
#include "bedrock/json/Value.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/RelayPubSub.hpp"
#include "kiroutils/Logger.hpp"
#include "records/EventRecord.hpp"

namespace kiro::web {

namespace json = bedrock::json;
using records::kDrawnowTimeoutLog;

namespace {

constexpr std::size_t kHistoryLength = 400;
const char* const kGraphicsChannels = "/graphics/*";
const char* const kLogChannel = "/graphics/PubSubLogger/log";
const char* const kErrorChannel = "/services/ErrorLoggingService/JSErrors";

void record(const std::string& event, std::string eventData, const std::string& source,
            const std::string& channel) {
    auto entry = records::eventRecord<json::Object>(records::kClient, source, channel, event,
                                                    std::move(eventData));
    kiroutils::Logger::instance().log(kDrawnowTimeoutLog, json::serialize(std::move(entry)));
}

/// Text that does not parse is recorded all the same, as a message without fields.
void recordGraphicsMessage(const std::string& channel, const PayloadInterface& payload) {
    if (!isRead(kiroutils::Logger::instance(), kDrawnowTimeoutLog)) return;
    const auto message = json::parse(payload.convertToString()).value_or(json::Value());
    const auto event =
        channel == kLogChannel ? "Log" : message.textOf("Type").value_or("Message Publish");
    record(event, message.textOf("message").value_or(""),
           message.textOf("Description").value_or(""), channel);
}

/// An error that does not parse is kept as it came: it is what somebody will want to read.
void recordScriptError(const std::string& channel, const PayloadInterface& payload) {
    if (!isRead(kiroutils::Logger::instance(), kDrawnowTimeoutLog)) return;
    auto text = payload.convertToString();
    if (const auto parsed = json::parse(text)) text = json::serialize(*parsed);
    record("Error", std::move(text), "ErrorLoggingService", channel);
}

}  // namespace

DrawnowTimeoutLogger::DrawnowTimeoutLogger()
    : fPubSub(
          PubSubFactory::makePubSubWithDefault([] { return std::make_shared<RelayPubSub>(); })) {
    auto& logger = kiroutils::Logger::instance();
    if (!logger.isHistoryEnabled(kDrawnowTimeoutLog)) {
        logger.setHistoryEnabled(kDrawnowTimeoutLog, true, kHistoryLength, true);
    }
    fGraphicsSubscriber = subscribe(fPubSub, kGraphicsChannels, &recordGraphicsMessage);
    fErrorSubscriber = subscribe(fPubSub, kErrorChannel, &recordScriptError);
}

DrawnowTimeoutLogger::~DrawnowTimeoutLogger() = default;

}  // namespace kiro::web
