#pragma once

#include "Options.hpp"

namespace monitor {

class Signals;

/// Draws for pages until a signal or the options' end, and prints what came of it; returns
/// whether all was drawn.
[[nodiscard]] bool runForPages(const Options& options, const Signals& signals);

}  // namespace monitor
