#include "PageRun.hpp"

namespace monitor {

/// Of a build without the gateway.
bool runForPages(const Options& /*options*/, const Signals& /*signals*/) {
    throw OptionError("built without the gateway, so there is no page: see --headless");
}

}  // namespace monitor
