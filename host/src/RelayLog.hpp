#pragma once

#include <string_view>

namespace relay {

/// Writes one line into the log "relay": that the `who` of `channel` threw, and what; a
/// `service` that is not empty is named. All but `who` comes from outside and is escaped
/// and cut as `text::escaped` does.
/// Does not throw. REQUIRES: called while the exception is handled; no lock held, since the
/// log's observers run.
void logCaught(std::string_view who, std::string_view channel,
               std::string_view service = {}) noexcept;

}  // namespace relay
