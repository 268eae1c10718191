#pragma once

#include "Options.hpp"

namespace monitor {

/// Draws for pages until SIGINT, SIGTERM or the options' end; returns the exit status.
[[nodiscard]] int runForPages(const Options& options);

}  // namespace monitor
