// Logs, warnings, assertions and settings.

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "bedrock/core/diag/assertion.hpp"
#include "bedrock/log/basic_diagnostic_logger.hpp"
#include "bedrock/memmgr/leaks.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "graphics_state/webSwitches.hpp"
#include "kiroutils/Logger.hpp"
#include "other/Controls.hpp"
#include "qvm/messages.hpp"

using other::observers;
using other::settings;

// Never destroyed: threads may ask until the process ends.
other::Settings& other::settings = *new other::Settings;
other::Observers& other::observers = *new other::Observers;

namespace kiroutils {

Logger& Logger::instance() {
    static Logger& logger = *new Logger;
    return logger;
}

void Logger::log(const std::string& name, const std::string& text) {
    const std::lock_guard lock(fMutex);
    auto& history = fHistories[name];
    if (history.isEnabled) history.entries.push_back(text);
    if (history.entries.size() > history.most) history.entries.pop_front();
}

bool Logger::isHistoryEnabled(const std::string& name) {
    const std::lock_guard lock(fMutex);
    return fHistories[name].isEnabled;
}

void Logger::setHistoryEnabled(const std::string& name, bool enabled, std::size_t maxEntries,
                               bool keepEntries) {
    const std::lock_guard lock(fMutex);
    auto& [isEnabled, most, entries] = fHistories[name];
    isEnabled = enabled;
    most = maxEntries;
    while (!entries.empty() && (entries.size() > most || !keepEntries)) entries.pop_front();
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

namespace bedrock::log {

struct diagnostic_record::Impl {
    std::string logger;
    std::string text;
};

diagnostic_record::diagnostic_record(std::unique_ptr<Impl> impl) noexcept
    : fImpl(std::move(impl)) {}
diagnostic_record::diagnostic_record(diagnostic_record&&) noexcept = default;
diagnostic_record::~diagnostic_record() {
    if (fImpl != nullptr && observers.diagnostic) observers.diagnostic(fImpl->logger, fImpl->text);
}
diagnostic_record& diagnostic_record::operator<<(std::string_view text) {
    fImpl->text += text;
    return *this;
}
diagnostic_record& diagnostic_record::operator<<(unsigned long number) {
    return *this << std::to_string(number);
}

struct basic_diagnostic_logger::Impl {
    std::string name;
};

basic_diagnostic_logger::basic_diagnostic_logger(std::string name)
    : fImpl(new Impl{std::move(name)}) {}
basic_diagnostic_logger::~basic_diagnostic_logger() = default;
bool basic_diagnostic_logger::enabled(int level) const noexcept {
    return level <= observers.diagnosticLevel;
}
diagnostic_record basic_diagnostic_logger::record(int /*level*/) const {
    using Record = diagnostic_record::Impl;
    return diagnostic_record(std::unique_ptr<Record>(new Record{fImpl->name, ""}));
}

}  // namespace bedrock::log

std::string bedrock::core::messageText(const MessageId& id, const std::vector<std::string>& all) {
    std::string text = id.component + ":" + id.key;
    for (const auto& argument : all) text += " " + argument;
    return text;
}

void qxWarningMsgId(const bedrock::core::MessageId& id, const std::vector<std::string>&) {
    if (observers.warning) observers.warning(id.component, id.key);
}

void qxErrMsgId(const bedrock::core::MessageId& id, const std::vector<std::string>& arguments) {
    throw QxError(id, bedrock::core::messageText(id, arguments));
}

/// It goes on afterwards, as a host may.
void bedrock::core::diag::assertionFailed(const char* condition, const char* source, int line,
                                          const char* function) {
    if (!observers.showsAssertions) return;
    std::fprintf(stderr, "%s in %s:%d, %s\n", condition, source, line, function);
}

void bedrock::core::diag::terminate(const char* condition, const char* source, int line,
                                    const char* function) {
    assertionFailed(condition, source, line, function);
    std::_Exit(3);
}

std::int64_t GraphicsState::kiroGetDrawnowTimeout() { return settings.drawnowTimeout; }
bool GraphicsState::kiroIsDrawnowTimeoutLoggingEnabled() { return settings.drawnowLogging; }
bool GraphicsState::isAtOstrel() { return settings.atOstrel; }
void GraphicsState::kiroInvokeDrawnowTimeoutCallback() {
    if (settings.drawnowHook) settings.drawnowHook();
}

bool kiro::web::usingBinaryChannelForCommands() { return settings.commandsOverBinary; }
bool kiro::web::usingBinaryChannelFallback() { return settings.fallback; }
bool kiro::web::warnAboutBinaryChannelFallback() { return settings.warnAboutFallback; }

boost::signals2::connection bedrock::memmgr::leaks::registerListenerForSnapshotEvent(
    std::function<void()> listener) {
    return observers.snapshot.connect(listener);
}
