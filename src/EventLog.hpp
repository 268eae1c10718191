#pragma once

#include <concepts>
#include <string>

namespace kiro {

/// Whether somebody may read what is written into the log `name` now, so that a record need not be
/// made in vain. Only a host's logger that offers `isRead(name)` can say no; one without it counts
/// as read. The answer holds for one record: a history may be enabled at any time.
template <typename Logger>
[[nodiscard]] bool isRead(const Logger& logger, const std::string& name) {
    if constexpr (requires {
                      { logger.isRead(name) } -> std::convertible_to<bool>;
                  }) {
        return logger.isRead(name);
    } else {
        return true;
    }
}

}  // namespace kiro
