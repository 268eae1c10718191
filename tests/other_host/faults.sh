#!/usr/bin/env bash
# The test of the conformance suite: each fault that this host can be told to have must fail the test
# named beside it; with none, all tests pass. faults.sh PROGRAM, the suite built against this host.
set -euo pipefail
program=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")"

faults="
dispatcher-calls-the-gone         Dispatcher.CallsNobodyWhoseListenerAnotherThreadHasDestroyed
dispatcher-calls-under-its-lock   Dispatcher.HoldsNoLockWhileItCalls
dispatcher-without-wildcards      Dispatcher.CallsEachListenerThatMatchesOnceOnTheSendingThread
dispatcher-swallows-exceptions    Dispatcher.PassesOnWhatACallbackThrows
tasks-are-lost                    BlockingWait.RunsTasksOfOtherThreadsAndThePump
wait-without-pump                 BlockingWait.RunsTasksOfOtherThreadsAndThePump
wait-misses-errors                BlockingWait.EndsByItsConditionByTimeAndByErrors
wait-asks-for-the-time-first      BlockingWait.EndsByItsConditionByTimeAndByErrors
router-for-any-context            Contexts.AreTheMainOneOnAForeignThread
every-thread-is-signal-thread     Contexts.AreTheMainOneOnAForeignThread
storage-per-thread                PerVmStorage.IsOneObjectPerTypeThatMayAskForAnother
json-of-bad-text                  Json.IsReadAndWrittenWithAscendingKeys
surrogates-stay-alone             Charset.ConvertsAnyUTF16
messages-on-the-publishing-thread RelayMessages.ArriveInOrderWithTheirExactTextOnAnotherThread
messages-out-of-order             RelayMessages.ArriveInOrderWithTheirExactTextOnAnotherThread
messages-are-lost                 RelayMessages.ArriveInOrderWithTheirExactTextOnAnotherThread
messages-under-the-pattern        RelayMessages.OnlyAFinalSlashStarIsAWildcard
messages-once-per-subscription    RelayMessages.AServiceObjectHearsAMessageOnceHoweverManySubscriptionsMatch
subscriptions-go-on               RelayMessages.AreHeardFromTheSubscriptionOnAndUntilItsEnd
client-hears-nothing              RelayMessages.ReachTheClientInOrderAndComeFromIt
streams-keep-the-block            RelayStreams.AnswerEachBlockOnceInAnyOrder
streams-answer-the-opposite       RelayStreams.AnswerEachBlockOnceInAnyOrder
streams-end-without-answer        RelayStreams.ThatEndGiveBackWhatIsUnderWay
clients-end-without-answer        RelayStreams.ThatLoseTheirClientGiveBackWhatIsUnderWay
streams-wait-for-a-client         RelayStreams.GiveBlocksBackWhenNoClientIsThere
streams-keep-the-first-receiver   RelayStreams.ReceiveTheClientsBlocksWhole
default-token-with-stamps         CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
token-by-server-send              CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
token-by-client-receive           CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
token-by-client-send              CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
token-by-server-receive           CompletionToken.IsEqualByIdentifierAndDefaultOnlyWithoutStamps
identifiers-repeat                UniqueIDGenerator.NeverRepeatsItself
time-in-milliseconds              Timestamp.IsMicrosecondsAndSurvivesAPagesNumbers
history-without-bound             Logger.KeepsTheLastEntriesOfAnEnabledHistory
history-always-on                 Logger.KeepsTheLastEntriesOfAnEnabledHistory
diagnostics-always-on             Diagnostics.AreWrittenUpToTheLevelOfTheirLoggerOnly
diagnostics-always-off            Diagnostics.AreWrittenUpToTheLevelOfTheirLoggerOnly
diagnostics-never-written         Diagnostics.AreWrittenUpToTheLevelOfTheirLoggerOnly
warnings-throw                    Warnings.AreIssuedAndThrowNothing
warnings-are-lost                 Warnings.AreIssuedAndThrowNothing
errors-without-identifier         Errors.CarryTheirIdentifier
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

# A fault that the sources know and the table does not, or the other way round, would test nothing.
known=$(grep -rhoP 'hasFault\("\K[^"]+' src include | sort -u)
listed=$(awk 'NF {print $1}' <<<"$faults" | sort)
diff <(echo "$known") <(echo "$listed") || { echo "faults.sh: table and sources differ" >&2; exit 1; }

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
echo "faults.sh: each of the $(wc -l <<<"$listed") faults is found"
