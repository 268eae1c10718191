#pragma once

#include <string>

#include "Options.hpp"
#include "kirogateway/Options.hpp"

namespace monitor {

/// The gateway's options for the monitor's page: its files, its channels, its configuration.
/// Throws `std::runtime_error` for a file that cannot be read.
[[nodiscard]] kirogateway::Options gatewayOptions(const Options& options);

/// Opens `link` in the user's browser if there is a graphical session; nothing is said of what
/// does not work.
void openBrowser(const std::string& link);

}  // namespace monitor
