#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"

namespace monitor {

/// Counts, while it lives, the host's warnings and what its services log: that a callback threw.
class WarningLog {
  public:
    /// Warnings by key and what they are about.
    using Counts = std::map<std::pair<std::string, std::string>, std::uint64_t>;

    WarningLog();

    [[nodiscard]] Counts counts() const EXCLUDES_LOCK(fMutex);

    [[nodiscard]] std::uint64_t errorsLogged() const { return fErrors; }

  private:
    void note(const kirohost::Warning& warning) EXCLUDES_LOCK(fMutex);

    mutable annotated::Mutex fMutex;
    Counts fCounts GUARDED_BY(fMutex);
    std::atomic<std::uint64_t> fErrors = 0;
    kirohost::Scope fWarningObserver;
    kirohost::Scope fLogObserver;
};

}  // namespace monitor
