#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "Options.hpp"
#include "WarningLog.hpp"
#include "client/HeadlessClient.hpp"
#include "engine/Engine.hpp"

namespace monitor {

/// Everything that a headless run is judged by.
struct Run {
    Options options;
    client::Script script;
    engine::EngineResult engine;
    client::ClientResult client;
    WarningLog::Counts warnings;
    std::uint64_t timeoutHooks = 0;  ///< calls of the host's time-out hook
    std::uint64_t errorsLogged = 0;  ///< by the host's services
    std::uint64_t recordedLines = 0;
};

/// What is wrong with the run, a line each; none when everything is as it must be.
[[nodiscard]] std::vector<std::string> judge(const Run& run);

/// Prints the table.
void printTable(std::ostream& out, const Run& run);

}  // namespace monitor
