#include "WarningLog.hpp"

namespace monitor {

WarningLog::WarningLog()
    : fWarningObserver(
          kirohost::observeWarnings([this](const kirohost::Warning& warning) { note(warning); })),
      fLogObserver(kirohost::observeLog([this](const kirohost::LogRecord& record) {
          if (record.logger == "relay") ++fErrors;
      })) {}

WarningLog::Counts WarningLog::counts() const {
    const annotated::Lock lock(fMutex);
    return fCounts;
}

void WarningLog::note(const kirohost::Warning& warning) {
    const annotated::Lock lock(fMutex);
    ++fCounts[{warning.id.key, warning.arguments.empty() ? "" : warning.arguments.front()}];
}

}  // namespace monitor
