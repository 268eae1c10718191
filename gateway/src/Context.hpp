#pragma once

#include <memory>

#include "Budget.hpp"
#include "Counters.hpp"
#include "GuardedLog.hpp"
#include "kirogateway/Options.hpp"

namespace kirogateway {

/// What the parts of one gateway share. Any thread.
struct Context {
    explicit Context(Options theOptions)
        : options(std::move(theOptions)),
          counters(std::make_shared<Counters>()),
          memory(std::make_shared<Budget>(options.limits.memory)),
          lostMemory(std::make_shared<Budget>(options.limits.lostMemory)) {}

    const Options options;
    const std::shared_ptr<Counters> counters;
    const std::shared_ptr<Budget> memory;      ///< of all that waits
    const std::shared_ptr<Budget> lostMemory;  ///< of what is kept for views without a connection
    GuardedLog log;                            ///< what the gateway itself has to say
    GuardedLog peerLog;  ///< what peers do: it never keeps the other from being written
};

}  // namespace kirogateway
