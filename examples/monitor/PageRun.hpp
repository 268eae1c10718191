#pragma once

#include "Options.hpp"
#include "kirofigures/Options.hpp"

namespace kirofigures {
class Window;
}

namespace monitor {

/// What is the same for pages and for the client in the same process.
[[nodiscard]] kirofigures::WindowOptions windowOptions(const Options& options);

/// Throws `std::runtime_error` if the window's recording has ended by itself.
void requireRecording(const kirofigures::Window& window);

/// Draws for pages until a signal or the options' end, and prints what came of it; returns
/// whether all was drawn.
[[nodiscard]] bool runForPages(const Options& options);

}  // namespace monitor
