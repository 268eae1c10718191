#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kiroutils {

/// Unlike the stand-in's, it does not say whether a log is read.
class Logger {
  public:
    static Logger& instance();
    void log(const std::string& name, const std::string& text);
    bool isHistoryEnabled(const std::string& name);
    void setHistoryEnabled(const std::string& name, bool enabled, std::size_t maxEntries,
                           bool keepEntries);
    std::vector<std::string> history(const std::string& name);
    void clearHistory(const std::string& name);

  private:
    struct History {
        bool isEnabled = false;
        std::size_t most = 0;
        std::deque<std::string> entries;
    };
    std::mutex fMutex;
    std::map<std::string, History> fHistories;
};

}  // namespace kiroutils
