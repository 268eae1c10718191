#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "kirohost/Export.hpp"

namespace kiroutils {

/// Named text logs, each with a history that can be switched on. All operations on any thread.
/// The stand-in prints nothing by itself: records go to the histories and to the observers that
/// the embedding program registers.
class KIROHOST_EXPORT Logger {
  public:
    /// The one logger, kept until the process ends.
    static Logger& instance();

    /// Writes one record into the log `name`. Observers run on this thread.
    void log(const std::string& name, const std::string& text);

    [[nodiscard]] bool isHistoryEnabled(const std::string& name) const;
    /// Switches the history of `name`: at most `maxEntries` records are kept, the oldest goes
    /// first. With `keepEntries` the entries already there stay, otherwise it starts empty.
    void setHistoryEnabled(const std::string& name, bool enabled, std::size_t maxEntries,
                           bool keepEntries);
    /// A copy of the history, oldest first.
    [[nodiscard]] std::vector<std::string> history(const std::string& name) const;
    void clearHistory(const std::string& name);

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

  private:
    Logger();
    ~Logger();
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiroutils
