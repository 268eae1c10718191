#include "kiroutils/Logger.hpp"

#include <atomic>
#include <deque>
#include <thread>
#include <unordered_map>
#include <utility>

#include "Observers.hpp"
#include "annotated/Mutex.hpp"
#include "process/Immortal.hpp"

namespace kiroutils {
namespace {

using kirohost::LogRecord;

kirohost::detail::Observers<LogRecord>& observers() {
    static Immortal<kirohost::detail::Observers<LogRecord>> immortal;
    return *immortal;
}

struct History {
    void trim() {
        while (entries.size() > maxEntries) entries.pop_front();
    }

    bool enabled = false;
    std::size_t maxEntries = 0;
    std::deque<std::string> entries;
};

}  // namespace

struct Logger::Impl {
    void record(const std::string& name, const std::string& text) {
        const annotated::Lock lock(mutex);
        const auto found = histories.find(name);
        if (found == histories.end() || !found->second.enabled) return;
        found->second.entries.push_back(text);
        found->second.trim();
    }

    /// How many histories are enabled; lets `log` pass by without the lock.
    std::atomic<std::size_t> numEnabled = 0;
    annotated::Mutex mutex;
    std::unordered_map<std::string, History> histories GUARDED_BY(mutex);
};

Logger::Logger() : fImpl(std::make_unique<Impl>()) {}

Logger::~Logger() = default;

Logger& Logger::instance() {
    struct Access : Logger {};  // the constructor is private
    static Immortal<Access> immortal;
    return *immortal;
}

void Logger::log(const std::string& name, const std::string& text) {
    if (fImpl->numEnabled != 0) fImpl->record(name, text);
    if (observers().empty()) return;
    observers().notify({name, text, 0, std::this_thread::get_id()});
}

bool Logger::isHistoryEnabled(const std::string& name) const {
    const annotated::Lock lock(fImpl->mutex);
    const auto found = fImpl->histories.find(name);
    return found != fImpl->histories.end() && found->second.enabled;
}

void Logger::setHistoryEnabled(const std::string& name, bool enabled, std::size_t maxEntries,
                               bool keepEntries) {
    const annotated::Lock lock(fImpl->mutex);
    History& history = fImpl->histories[name];
    if (enabled && !history.enabled) ++fImpl->numEnabled;
    if (!enabled && history.enabled) --fImpl->numEnabled;
    history.enabled = enabled;
    history.maxEntries = maxEntries;
    if (!keepEntries) history.entries.clear();
    history.trim();
    if (!enabled && history.entries.empty()) fImpl->histories.erase(name);
}

std::vector<std::string> Logger::history(const std::string& name) const {
    const annotated::Lock lock(fImpl->mutex);
    const auto found = fImpl->histories.find(name);
    if (found == fImpl->histories.end()) return {};
    return {found->second.entries.begin(), found->second.entries.end()};
}

void Logger::clearHistory(const std::string& name) {
    const annotated::Lock lock(fImpl->mutex);
    const auto found = fImpl->histories.find(name);
    if (found != fImpl->histories.end()) found->second.entries.clear();
}

}  // namespace kiroutils

namespace kirohost {

Scope observeLog(std::function<void(const LogRecord&)> observer) {
    return kiroutils::observers().add(std::move(observer));
}

}  // namespace kirohost
