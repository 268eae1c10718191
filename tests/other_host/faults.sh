#!/usr/bin/env bash
# The test of the conformance suite: each fault that this host can be told to have must fail the test
# named beside it; with none, all tests pass. faults.sh PROGRAM, the suite built against this host.
set -euo pipefail
program=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")"

faults="
dispatcher-calls-under-its-lock   Dispatcher.HoldsNoLockWhileItCalls
messages-are-lost                 RelayMessages.ArriveInOrderWithTheirExactTextOnAnotherThread
token-by-server-send              CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
token-by-client-receive           CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
token-by-client-send              CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
token-by-server-receive           CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
diagnostics-always-on             Diagnostics.AreWrittenUpToTheLevelOfTheirLoggerOnly
diagnostics-never-written         Diagnostics.AreWrittenUpToTheLevelOfTheirLoggerOnly
warnings-throw                    Warnings.AreIssuedAndThrowNothing
assertions-are-ignored            Assertions.AreReportedWhateverComesOfThem
terminate-does-not-end            Assertions.EndTheProcessAtATerminate
setting-commands                  GraphicsSettings.AreReadAfreshEachTimeAndApart
setting-fallback                  GraphicsSettings.AreReadAfreshEachTimeAndApart
setting-warn                      GraphicsSettings.AreReadAfreshEachTimeAndApart
setting-timeout                   GraphicsSettings.AreReadAfreshEachTimeAndApart
setting-logging                   GraphicsSettings.AreReadAfreshEachTimeAndApart
setting-ostrel                    GraphicsSettings.AreReadAfreshEachTimeAndApart
setting-hook                      GraphicsSettings.AreReadAfreshEachTimeAndApart
snapshot-not-connected            MemorySnapshots.AreAnnouncedWhileTheConnectionIsThere
"

"$program" --gtest_brief=1

# A hang ends by the suite's watchdog; a short limit will do, nothing here takes a second. Most of the
# time is spent waiting for it, so several run at a time.
export KIROWEB_CONFORMANCE_LIMIT=3 program
find_fault() {
    local said
    said=$(OTHER_HOST_FAULT=$1 "$program" --gtest_brief=1 --gtest_filter="$2" 2>&1) || true
    [[ $said == *"[  FAILED  ] $2"* ]] || { echo "faults.sh: $2 does not find \"$1\"" >&2; return 1; }
}
export -f find_fault
# shellcheck disable=SC2016
grep . <<<"$faults" | xargs -P 8 -L 1 bash -c 'find_fault "$@"' _
echo "faults.sh: each of the $(grep -c . <<<"$faults") faults is found"
