#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <string>

#include "Options.hpp"
#include "engine/Latency.hpp"

namespace monitor {

class History;

/// What is known when a flush has ended by time-out.
struct Timeout {
    std::chrono::system_clock::time_point started;  ///< the program
    std::chrono::system_clock::time_point now;
    std::string cause;
    std::string pages;  ///< the gateway's diagnostics
    const std::deque<engine::Latency>& latest;
};

/// All of it as one JSON object: "time", "started", "version", "cause", "options", "gateway",
/// "latency" with what the parts of the latest flushes took in microseconds, "history" with what
/// clients and engine said last, and "historyLeftOut", how many records of it are gone.
[[nodiscard]] std::string diagnosticsText(const Options& options, const Timeout& timeout,
                                          const History& history);

/// Throws `std::runtime_error` when the file cannot be written.
void writeFile(const std::filesystem::path& file, const std::string& text);

}  // namespace monitor
