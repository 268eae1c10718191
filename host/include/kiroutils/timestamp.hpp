#pragma once

#include <cstdint>

#include "kirohost/Export.hpp"

namespace kiroutils {

/// Microseconds since 1970-01-01 UTC. Below 2^53 until the year 2255, so the number survives a
/// page's doubles. Any thread.
KIROHOST_EXPORT std::uint64_t timestamp();

}  // namespace kiroutils
