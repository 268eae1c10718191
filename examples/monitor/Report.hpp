#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Options.hpp"
#include "WarningLog.hpp"
#include "client/HeadlessClient.hpp"
#include "engine/Engine.hpp"
#include "engine/Traffic.hpp"

namespace monitor {

/// Everything that a headless run is judged by.
struct Run {
    Options options;
    client::Script script;
    engine::EngineResult engine;
    client::ClientResult client;
    engine::Traffic traffic;
    engine::Traffic backlog;     ///< what was held back until the client was ready
    std::string commandChannel;  ///< as warnings name it
    WarningLog::Counts warnings;
    std::uint64_t timeoutHooks = 0;  ///< calls of the host's time-out hook
    std::uint64_t errorsLogged = 0;  ///< by the host's services
    std::uint64_t recordedBytes = 0;
};

/// What is wrong with the run, a line each; none when everything is as it must be.
[[nodiscard]] std::vector<std::string> judge(const Run& run);

/// The table of a headless run. Indented numbers add up to the one above them.
[[nodiscard]] std::string tableText(const Run& run);

/// One line on what came of drawing for pages; the first five numbers add up.
[[nodiscard]] std::string summaryText(const engine::EngineResult& result);

/// Whether all that was asked of a run with pages was drawn.
[[nodiscard]] bool isAllDrawn(const Options& options, const engine::EngineResult& result);

}  // namespace monitor
