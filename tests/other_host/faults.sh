#!/usr/bin/env bash
# The test of the conformance suite: each fault that this host can be told to have must fail the test
# named before it; with none, all tests pass. faults.sh PROGRAM, the suite built against this host.
set -euo pipefail
program=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")"

faults="
RelayMessages.ArriveInOrderWithTheirExactTextOnAnotherThread messages-are-lost
Dispatcher.HoldsNoLockWhileItCalls calls-under-a-lock
CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps token-stamp-counts
Diagnostics.AreWrittenUpToTheLevelOfTheirLoggerOnly diagnostics-always-on diagnostics-never-written
Warnings.AreIssuedAndThrowNothing warnings-throw
Assertions.AreReportedWhateverComesOfThem assertions-are-ignored
Assertions.EndTheProcessAtATerminate terminate-does-not-end
GraphicsSettings.AreReadAfreshEachTimeAndApart setting-commands setting-fallback setting-warn
    setting-timeout setting-logging setting-ostrel setting-hook
MemorySnapshots.AreAnnouncedWhileTheConnectionIsThere snapshot-not-connected
"

"$program" --gtest_brief=1

# A hang ends by the suite's watchdog; a short limit will do, nothing here takes a second.
export KIROWEB_CONFORMANCE_LIMIT=3
for word in $faults; do
    [[ $word != *.* ]] || { test=$word && continue; }
    said=$(OTHER_HOST_FAULT=$word "$program" --gtest_brief=1 --gtest_filter="$test" 2>&1) || true
    [[ $said == *"[  FAILED  ] $test"* ]] ||
        { echo "faults.sh: $test does not find \"$word\"" >&2; exit 1; }
done
echo "faults.sh: each fault is found"
