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

    /// Whether a record of the log `component` would be seen: its history is enabled or somebody
    /// observes logs. Cheap, so that a record need not be made in vain: two loads while no history
    /// is enabled.
    [[nodiscard]] bool isRead(const std::string& component) const;

    [[nodiscard]] bool isHistoryEnabled(const std::string& name) const;
    /// Switches the history of `name`: at most `maxEntries` records are kept, of at most
    /// `setMaxHistoryBytes` bytes together; the oldest goes first. With `keepEntries` the entries
    /// already there stay, otherwise it starts empty.
    void setHistoryEnabled(const std::string& name, bool enabled, std::size_t maxEntries,
                           bool keepEntries);
    /// A copy of the history, oldest first.
    [[nodiscard]] std::vector<std::string> history(const std::string& name) const;
    void clearHistory(const std::string& name);

    /// Bounds the bytes of the texts in each history, 16 MiB unless set, from now on and for what
    /// is there already. The newest record always stays, whole, however long it is.
    void setMaxHistoryBytes(std::size_t maxBytes);

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

  private:
    Logger();
    ~Logger();
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiroutils
