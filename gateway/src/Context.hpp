#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Budget.hpp"
#include "Counters.hpp"
#include "GuardedLog.hpp"
#include "kirogateway/Options.hpp"

namespace kirogateway {

/// What the parts of one site share. Any thread.
struct Context {
    /// Lines of the log begin with `whose`. Several sites may have the same counters. `theOthers`:
    /// addresses of the WebSockets of other servers that lead to the same engine. `account`: of all
    /// that waits here, and elsewhere if it is shared.
    explicit Context(Options theOptions, const std::string& whose = {},
                     std::shared_ptr<Counters> theCounters = std::make_shared<Counters>(),
                     std::vector<std::string> theOthers = {},
                     std::shared_ptr<Account> account = std::make_shared<Account>())
        : options(std::move(theOptions)),
          others(std::move(theOthers)),
          counters(std::move(theCounters)),
          memory(std::make_shared<Budget>(options.limits.memory, std::move(account))),
          lostMemory(std::make_shared<Budget>(options.limits.lostMemory)),
          log(whose),
          peerLog(whose) {}

    const Options options;
    const std::vector<std::string> others;
    const std::shared_ptr<Counters> counters;
    const std::shared_ptr<Budget> memory;      ///< of all that waits in the account
    const std::shared_ptr<Budget> lostMemory;  ///< of what is kept for views without a connection
    GuardedLog log;                            ///< what the gateway itself has to say
    GuardedLog peerLog;  ///< what peers do: it never keeps the other from being written
};

}  // namespace kirogateway
