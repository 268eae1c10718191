// Logs, warnings, assertions, settings and tokens.

#include <atomic>
#include <boost/signals2/signal.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>

#include "bedrock/core/diag/assertion.hpp"
#include "bedrock/log/basic_diagnostic_logger.hpp"
#include "bedrock/memmgr/leaks.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "graphics_state/webSwitches.hpp"
#include "kiroutils/CompletionToken.hpp"
#include "kiroutils/Logger.hpp"
#include "kiroutils/UniqueIDGenerator.hpp"
#include "kiroutils/timestamp.hpp"
#include "other/Controls.hpp"
#include "other/Fault.hpp"
#include "qvm/messages.hpp"

using other::hasFault;
using other::observers;
using other::settings;

other::Settings& other::settings() {
    static Settings& all = *new Settings;
    return all;
}

other::Observers& other::observers() {
    static Observers& all = *new Observers;
    return all;
}

// --- Tokens ----------------------------------------------------------------------------------

namespace kiroutils {

bool CompletionToken::isDefaultToken() const {
    const bool hasStamp = fTimeStamps != CompletionTokenTimeStamps{};
    return fIdentifier.empty() && (!hasStamp || hasFault("default-token-with-stamps"));
}

bool CompletionToken::operator==(const CompletionToken& other) const {
    const auto& mine = fTimeStamps;
    const auto& its = other.fTimeStamps;
    if (hasFault("token-by-server-send") && mine.serverSend != its.serverSend) return false;
    if (hasFault("token-by-client-receive") && mine.clientReceive != its.clientReceive)
        return false;
    if (hasFault("token-by-client-send") && mine.clientSend != its.clientSend) return false;
    if (hasFault("token-by-server-receive") && mine.serverReceive != its.serverReceive)
        return false;
    return fIdentifier == other.fIdentifier;
}

std::string UniqueIDGenerator::nextID() {
    static std::atomic<unsigned> last = 0;
    static const auto process = std::to_string(std::random_device()());
    if (hasFault("identifiers-repeat")) return process;
    return "token \u20ac " + process + " " + std::to_string(++last);  // any text will do
}

std::uint64_t timestamp() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto count = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    return static_cast<std::uint64_t>(hasFault("time-in-milliseconds") ? count / 1000 : count);
}

// --- Logs ------------------------------------------------------------------------------------

Logger& Logger::instance() {
    static Logger& logger = *new Logger;
    return logger;
}

void Logger::History::trim() {
    while (entries.size() > maxEntries && !hasFault("history-without-bound")) entries.pop_front();
}

void Logger::log(const std::string& name, const std::string& text) {
    const std::lock_guard lock(fMutex);
    auto& history = fHistories[name];
    if (!history.isEnabled && !hasFault("history-always-on")) return;
    history.entries.push_back(text);
    history.trim();
}

bool Logger::isHistoryEnabled(const std::string& name) {
    const std::lock_guard lock(fMutex);
    return fHistories[name].isEnabled;
}

void Logger::setHistoryEnabled(const std::string& name, bool enabled, std::size_t maxEntries,
                               bool keepEntries) {
    const std::lock_guard lock(fMutex);
    auto& history = fHistories[name];
    history.isEnabled = enabled;
    history.maxEntries = maxEntries;
    if (!keepEntries) history.entries.clear();
    history.trim();
}

std::vector<std::string> Logger::history(const std::string& name) {
    const std::lock_guard lock(fMutex);
    const auto& entries = fHistories[name].entries;
    return {entries.begin(), entries.end()};
}

void Logger::clearHistory(const std::string& name) {
    const std::lock_guard lock(fMutex);
    fHistories[name].entries.clear();
}

}  // namespace kiroutils

namespace {

std::mutex levelsMutex;

std::map<std::string, int>& levels() {
    static auto& all = *new std::map<std::string, int>;
    return all;
}

}  // namespace

void other::setDiagnosticLevel(const std::string& logger, int level) {
    const std::lock_guard lock(levelsMutex);
    levels()[logger] = level;
}

bool bedrock::log::basic_diagnostic_logger::enabled(int level) const {
    if (hasFault("diagnostics-always-on")) return true;
    if (hasFault("diagnostics-always-off")) return false;
    const std::lock_guard lock(levelsMutex);
    return level <= levels()[fName];
}

bedrock::log::diagnostic_record::~diagnostic_record() {
    if (observers().diagnostic && !hasFault("diagnostics-never-written")) {
        observers().diagnostic(fLogger, fText.str());
    }
}

// --- Warnings, errors and assertions -----------------------------------------------------------

std::string bedrock::core::messageText(const MessageId& id, const std::vector<std::string>& all) {
    std::string text = id.component + ":" + id.key;
    for (const auto& argument : all) text += " " + argument;
    return text;
}

void qxWarningMsgId(const bedrock::core::MessageId& id, const std::vector<std::string>&) {
    if (hasFault("warnings-throw")) throw std::runtime_error(id.key);
    if (observers().warning && !hasFault("warnings-are-lost")) {
        observers().warning(id.component, id.key);
    }
}

void qxErrMsgId(const bedrock::core::MessageId& id, const std::vector<std::string>& arguments) {
    throw QxError(hasFault("errors-without-identifier") ? bedrock::core::MessageId() : id,
                  bedrock::core::messageText(id, arguments));
}

namespace {

void report(const char* condition, const char* source, int line, const char* function) {
    if (!observers().showsAssertions) return;
    std::fprintf(stderr, "%s in %s:%d, %s\n", condition, source, line, function);
}

}  // namespace

/// It goes on afterwards, as a host may.
void bedrock::core::diag::assertionFailed(const char* condition, const char* source, int line,
                                          const char* function) {
    if (!hasFault("assertions-are-ignored")) report(condition, source, line, function);
}

void bedrock::core::diag::terminate(const char* condition, const char* source, int line,
                                    const char* function) {
    report(condition, source, line, function);
    if (hasFault("terminate-does-not-end")) throw std::runtime_error(condition);
    std::_Exit(3);
}

// --- Settings and the snapshot event -----------------------------------------------------------

std::int64_t GraphicsState::kiroGetDrawnowTimeout() {
    return hasFault("setting-timeout") ? 60 : settings().drawnowTimeout;
}
bool GraphicsState::kiroIsDrawnowTimeoutLoggingEnabled() {
    return settings().drawnowLogging && !hasFault("setting-logging");
}
bool GraphicsState::isAtOstrel() { return settings().atOstrel && !hasFault("setting-ostrel"); }
void GraphicsState::kiroInvokeDrawnowTimeoutCallback() {
    if (settings().drawnowHook && !hasFault("setting-hook")) settings().drawnowHook();
}

namespace kiro::web {

bool usingBinaryChannelForCommands() {
    return hasFault("setting-commands") ? settings().fallback : settings().commandsOverBinary;
}
bool usingBinaryChannelFallback() { return settings().fallback || hasFault("setting-fallback"); }
bool warnAboutBinaryChannelFallback() {
    return settings().warnAboutFallback != hasFault("setting-warn");
}

}  // namespace kiro::web

namespace {

boost::signals2::signal<void()>& snapshotEvent() {
    static auto& event = *new boost::signals2::signal<void()>;
    return event;
}

}  // namespace

boost::signals2::connection bedrock::memmgr::leaks::registerListenerForSnapshotEvent(
    std::function<void()> listener) {
    if (hasFault("snapshot-not-connected")) return {};
    return snapshotEvent().connect(listener);
}

void other::takeMemorySnapshot() { snapshotEvent()(); }
