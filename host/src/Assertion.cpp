#include "bedrock/core/diag/assertion.hpp"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "Replacement.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace {

using kirohost::AssertionPolicy;
using kirohost::FailedAssertion;

struct Reaction {
    AssertionPolicy policy;
    std::function<void(const FailedAssertion&)> observer;
};

Replacement<Reaction>& reactions() {
    static Immortal<Replacement<Reaction>> immortal;
    return *immortal;
}

[[noreturn]] void endProcess(const char* what, const FailedAssertion& failed) {
    const std::string line = std::string(what) + ": " + failed.condition + ", " + failed.source +
                             ":" + std::to_string(failed.line) + ", " + failed.function + "\n";
    std::fputs(line.c_str(), stderr);
    std::abort();
}

}  // namespace

namespace kirohost {

Scope setAssertionPolicy(AssertionPolicy policy,
                         std::function<void(const FailedAssertion&)> observer) {
    return reactions().install({policy, std::move(observer)});
}

}  // namespace kirohost

namespace bedrock::core::diag {

void assertionFailed(const char* condition, const char* source, int line, const char* function) {
    const FailedAssertion failed{condition, source, line, function};
    const auto reaction = reactions().current();
    if (reaction == nullptr || reaction->policy == AssertionPolicy::kEndProcess) {
        endProcess("Assertion failed", failed);
    }
    if (reaction->observer) reaction->observer(failed);
}

void terminate(const char* condition, const char* source, int line, const char* function) {
    endProcess("Terminated", {condition, source, line, function});
}

}  // namespace bedrock::core::diag
