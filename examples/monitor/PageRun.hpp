#pragma once

#include "Options.hpp"
#include "kirofigures/Options.hpp"

namespace monitor {

/// What is the same for pages and for the client in the same process.
[[nodiscard]] kirofigures::WindowOptions windowOptions();

/// Draws for pages until a signal or the options' end, and prints what came of it; returns
/// whether all was drawn.
[[nodiscard]] bool runForPages(const Options& options);

}  // namespace monitor
