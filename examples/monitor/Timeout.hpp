#pragma once

#include <deque>
#include <filesystem>
#include <string>

#include "engine/Latency.hpp"

namespace monitor {

/// Why a flush has ended by time-out, in a few words. `announced`: whether a client had announced
/// itself; `pages`: the gateway's diagnostics.
[[nodiscard]] std::string timeoutCause(bool announced, const std::string& pages);

/// Writes what is known, as one JSON object: "cause", "gateway" (`pages`), "latency", what the
/// parts of the latest flushes took, and "history", what clients and engine said last. Throws
/// `std::runtime_error` when the file cannot be written.
void writeDiagnostics(const std::filesystem::path& file, const std::string& cause,
                      const std::string& pages, const std::deque<engine::Latency>& latest);

}  // namespace monitor
