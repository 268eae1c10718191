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
    void add(const std::string& text, std::size_t maxBytes) {
        entries.push_back(text);
        numBytes += text.size();
        trim(maxBytes);
    }

    void trim(std::size_t maxBytes) {
        const auto isTooLong = [&] {
            return entries.size() > maxEntries || (entries.size() > 1 && numBytes > maxBytes);
        };
        while (isTooLong()) {
            numBytes -= entries.front().size();
            entries.pop_front();
        }
    }

    void clear() {
        entries.clear();
        numBytes = 0;
    }

    bool enabled = false;
    std::size_t maxEntries = 0;
    std::size_t numBytes = 0;
    std::deque<std::string> entries;
};

}  // namespace

struct Logger::Impl {
    void record(const std::string& name, const std::string& text) {
        const annotated::Lock lock(mutex);
        const auto found = histories.find(name);
        if (found == histories.end() || !found->second.enabled) return;
        found->second.add(text, maxHistoryBytes);
    }

    /// How many histories are enabled; lets `log` pass by without the lock.
    std::atomic<std::size_t> numEnabled = 0;
    annotated::Mutex mutex;
    std::size_t maxHistoryBytes GUARDED_BY(mutex) = std::size_t{16} << 20U;
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

bool Logger::isRead(const std::string& component) const {
    if (!observers().empty()) return true;
    return fImpl->numEnabled != 0 && isHistoryEnabled(component);
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
    if (!keepEntries) history.clear();
    history.trim(fImpl->maxHistoryBytes);
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
    if (found != fImpl->histories.end()) found->second.clear();
}

void Logger::setMaxHistoryBytes(std::size_t maxBytes) {
    const annotated::Lock lock(fImpl->mutex);
    fImpl->maxHistoryBytes = maxBytes;
    for (auto& [name, history] : fImpl->histories) history.trim(maxBytes);
}

}  // namespace kiroutils

namespace kirohost {

Scope observeLog(std::function<void(const LogRecord&)> observer) {
    return kiroutils::observers().add(std::move(observer));
}

}  // namespace kirohost
