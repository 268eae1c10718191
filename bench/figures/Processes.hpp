#pragma once

#include <sys/types.h>

namespace bench {

/// What a browser has used since it began, as the kernel counts it.
struct Usage {
    double processor = 0;   ///< seconds, of all its processes
    double mainThread = 0;  ///< seconds, of the threads that lay out its pages
    double memory = 0;      ///< bytes that the processes of its pages hold now
};

/// REQUIRES: `browser` runs.
[[nodiscard]] Usage usageOf(pid_t browser);

}  // namespace bench
