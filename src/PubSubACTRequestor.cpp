#include "kiro/web/PubSubACTRequestor.hpp"

#include <atomic>
#include <boost/signals2/connection.hpp>
#include <utility>

#include "DrawnowTimeoutLogger.hpp"
#include "EventLog.hpp"
#include "OnceGuard.hpp"
#include "annotated/Mutex.hpp"
#include "bedrock/log/basic_diagnostic_logger.hpp"
#include "bedrock/memmgr/leaks.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "kiro/web/CommandSenderInterface.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiroutils/Logger.hpp"
#include "process/Immortal.hpp"
#include "records/EventRecord.hpp"

namespace kiro::web {

namespace json = bedrock::json;
using kiroutils::CompletionToken;
using records::kDrawnowTimeoutLog;

namespace {

constexpr int kTraceLevel = 8;
const char* const kTokenKey = "ACT";

/// Keeps the one recorder of client messages, which stays once it is there.
struct RecorderHolder {
    annotated::Mutex fMutex{annotated::Rank::kRecorder};
    OnceGuard fOnce;
    /// Owned, never deleted. Read without the mutex by the annotation's record.
    std::atomic<DrawnowTimeoutLogger*> fRecorder = nullptr;
};

RecorderHolder& recorderHolder() {
    static Immortal<RecorderHolder> holder;
    return *holder;
}

bedrock::log::basic_diagnostic_logger& actLogger() {
    static Immortal<bedrock::log::basic_diagnostic_logger> logger("graphics::ACT");
    return *logger;
}

/// Makes the recorder if the host wants one, and writes a record if there is one. Mostly there is
/// none: the event data are made only if there is.
template <typename MakeData>
void writeLifecycleRecord(const char* event, const MakeData& makeData) {
    auto& holder = recorderHolder();
    if (GraphicsState::kiroIsDrawnowTimeoutLoggingEnabled()) {
        holder.fOnce.run(
            [&holder] { holder.fRecorder = std::make_unique<DrawnowTimeoutLogger>().release(); });
    }
    if (holder.fRecorder.load() == nullptr) return;
    auto& logger = kiroutils::Logger::instance();
    if (!isRead(logger, kDrawnowTimeoutLog)) return;
    const auto record = records::eventRecord<json::Object>(records::kServer, "PubSubACTRequestor",
                                                           "", event, makeData());
    logger.log(kDrawnowTimeoutLog, json::serialize(record));
}

template <typename MakeData>
void writeGuardedLifecycleRecord(const char* event, const MakeData& makeData) {
    const annotated::Lock lock(recorderHolder().fMutex);
    writeLifecycleRecord(event, makeData);
}

/// A stamp that is absent or no whole number in range leaves `stamp` alone.
void readStamp(const JSONObject& message, const std::string& key, std::uint64_t& stamp) {
    unsigned long value = 0;
    if (message.getValue(key, value)) stamp = value;
}

/// A reply of the client, on the message service's thread. Only a requestor that is still there
/// is interested in it.
void handleReply(const std::weak_ptr<ACTRequestor::ReturnTokenInterface>& weakManager,
                 bool lifecycleTracing, const PayloadInterface& payload) {
    const auto manager = weakManager.lock();
    if (manager == nullptr) return;
    const JSONObject message(payload.convertToString());
    std::string identifier;
    if (!message.getValue(kTokenKey, identifier)) return;
    CompletionToken token(std::move(identifier));
    if (lifecycleTracing && actLogger().enabled(kTraceLevel)) {
        actLogger().record(kTraceLevel) << "graphics::ACT lifecycle " << token.convertToString();
    }
    if (manager->isTimeStampLoggingEnabled()) {
        auto& stamps = token.getTimeStamps();
        readStamp(message, "serverSendTS", stamps.serverSend);
        readStamp(message, "clientReceiveTS", stamps.clientReceive);
        readStamp(message, "clientSendTS", stamps.clientSend);
    }
    manager->returnToken(token);
}

void clearHistory() {
    auto& holder = recorderHolder();
    const annotated::Lock lock(holder.fMutex);
    if (holder.fRecorder.load() == nullptr) return;
    kiroutils::Logger::instance().clearHistory(kDrawnowTimeoutLog);
}

}  // namespace

struct PubSubACTRequestor::Impl {
    std::unique_ptr<Subscriber> fSubscriber;
    std::shared_ptr<CommandSenderInterface> fCommandSender;
    const std::string fReturnChannel;
    const std::string fClientKind;
    const bool fLifecycleTracing;
};

PubSubACTRequestor::PubSubACTRequestor(std::shared_ptr<CommandSenderInterface> sender,
                                       const std::string& returnChannel, const std::string& source,
                                       const std::string& clientKind, bool lifecycleTracing)
    : ACTRequestor(kDrawnowTimeoutLog, source, returnChannel),
      fImpl(std::make_unique<Impl>(
          Impl{nullptr, std::move(sender), returnChannel, clientKind, lifecycleTracing})) {
    writeGuardedLifecycleRecord("Created PubSubACTRequestor", [&] {
        return json::Object{{"Id", returnChannel}};
    });
    // Weak, so that the subscription does not keep the manager of a destroyed requestor alive.
    fImpl->fSubscriber = subscribe(
        PubSubFactory::pubsubInstance(), returnChannel,
        [manager = std::weak_ptr<ReturnTokenInterface>(getReturnTokenInterface()),
         lifecycleTracing](const std::string& /*channel*/, const PayloadInterface& payload) {
            handleReply(manager, lifecycleTracing, payload);
        });
}

PubSubACTRequestor::~PubSubACTRequestor() {
    try {
        writeGuardedLifecycleRecord("Destroyed PubSubACTRequestor", [this] {
            return json::Object{{"Id", fImpl->fReturnChannel}};
        });
    } catch (...) {  // a destructor has nobody to tell
    }
    fImpl->fSubscriber.reset();
    fImpl->fCommandSender.reset();
}

void PubSubACTRequestor::setCommandSender(std::shared_ptr<CommandSenderInterface> sender) {
    fImpl->fCommandSender = std::move(sender);
}

void PubSubACTRequestor::convertToPayload(JSONPayload& payload,
                                          const CompletionToken& token) const {
    payload.addDataToPayload(kTokenKey, token.convertToString());
    payload.addDataToPayload("returnChannel", fImpl->fReturnChannel);
    if (!isTimeStampLoggingEnabled()) return;
    const auto& stamps = token.getTimeStamps();
    payload.addDataToPayload("serverSendTS", stamps.serverSend);
    payload.addDataToPayload("clientReceiveTS", stamps.clientReceive);
    payload.addDataToPayload("clientSendTS", stamps.clientSend);
    payload.addDataToPayload("serverReceiveTS", stamps.serverReceive);
}

void PubSubACTRequestor::doSendACT(const CompletionToken& token) {
    JSONPayload payload;
    convertToPayload(payload, token);
    if (fImpl->fCommandSender == nullptr) return;
    writeGuardedLifecycleRecord("Sending ACT", [&] {
        return json::Object{{"Id", fImpl->fReturnChannel}, {kTokenKey, token.convertToString()}};
    });
    // Whatever the annotation holds, so that each sent token has its pair of records. Without the
    // holder's mutex: the record before has made the recorder if the host wants one.
    writeLifecycleRecord("Logging Annotation", [this] {
        return json::Object{{"Annotation", getAnnotation()}};
    });
    fImpl->fCommandSender->sendCommand("sendACT", std::move(payload));
}

std::string PubSubACTRequestor::getDetailsForInternalTimeoutWarning() const {
    std::string text;
    if (fImpl->fCommandSender != nullptr) {
        text = fImpl->fCommandSender->queryCommandSenderReadyStatus()
                   ? "Client may be connected."
                   : "Client may not be connected.";
    }
    auto& holder = recorderHolder();
    const annotated::Lock lock(holder.fMutex);
    if (holder.fRecorder.load() == nullptr) return text + "\ndrawnowTimeoutLogger disabled";
    const auto history = kiroutils::Logger::instance().history(kDrawnowTimeoutLog);
    text += "\nLast " + std::to_string(history.size()) + " messages:\n";
    for (const auto& entry : history) text += "\n " + entry;
    return text;
}

std::string PubSubACTRequestor::getDetailsForCustomerTimeoutWarning() const {
    const auto& clientKind = fImpl->fClientKind;
    if (fImpl->fCommandSender == nullptr) return "an uninitialized " + clientKind + " communicator";
    if (fImpl->fCommandSender->queryCommandSenderReadyStatus()) {
        return "an unresponsive " + clientKind + " client";
    }
    return "a " + clientKind + " handshaking issue";
}

namespace test {

void enablePubSubACTRequestorTesting() {
    static Immortal<OnceGuard> once;
    static Immortal<boost::signals2::scoped_connection> connection;
    once->run([] {
        *connection = bedrock::memmgr::leaks::registerListenerForSnapshotEvent(&clearHistory);
    });
}

}  // namespace test
}  // namespace kiro::web
