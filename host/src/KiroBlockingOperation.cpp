#include "kiroutils/KiroBlockingOperation.hpp"

#include <chrono>
#include <string>

#include "Interpreter.hpp"
#include "checked/Require.hpp"

namespace kiroutils {
namespace {

/// How long a wait sleeps when no task wakes it, before it looks at its condition again.
constexpr std::chrono::milliseconds kLongestSleep(10);

[[noreturn]] void throwTimedOut(const KiroTerminatingCondition& condition) {
    throw TerminatingConditionException("The wait \"" + condition.name() + "\" timed out after " +
                                        std::to_string(condition.timeout().count()) + " seconds.");
}

}  // namespace

void KiroBlockingOperation::waitOrThrow(std::unique_ptr<KiroTerminatingCondition> condition,
                                        std::function<void()> pump) {
    KIROWEB_REQUIRE(condition != nullptr);
    const auto queue = kirohost::detail::Interpreter::instance().current().queue();
    const kirohost::detail::InsideWait insideWait;
    for (;;) {
        // Counted before the condition is asked: a task that is queued from here on ends the sleep.
        const auto numSeen = queue->numQueued();
        if (condition->shouldTerminate()) {
            if (condition->hasTimedOut()) throwTimedOut(*condition);
            return;
        }
        condition->doThrowIfError();
        const auto numRun = queue->run(kirohost::detail::Taking::kInsideWait);
        if (pump) pump();
        // A task that has run may have fulfilled the condition.
        if (numRun == 0) queue->awaitTaskBeyond(numSeen, kLongestSleep);
    }
}

}  // namespace kiroutils
