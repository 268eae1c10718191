// The logs' histories.

#include "kiroutils/Logger.hpp"

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
