#include "WarningLog.hpp"

namespace monitor {

namespace {

/// What tells warnings of one key apart: the first line of the last argument. An internal
/// time-out warning has its details there, another warning has one argument at most.
std::string essence(const kirohost::Warning& warning) {
    if (warning.arguments.empty()) return {};
    const std::string& last = warning.arguments.back();
    return last.substr(0, last.find('\n'));
}

}  // namespace

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
    ++fCounts[{warning.id.key, essence(warning)}];
}

}  // namespace monitor
