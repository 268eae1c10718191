#pragma once

#include "Options.hpp"

namespace monitor {

/// Draws for pages until SIGINT, SIGTERM or the options' end, and prints what came of it; returns
/// whether all was drawn.
[[nodiscard]] bool runForPages(const Options& options);

}  // namespace monitor
