#pragma once

/// KIROWEB_REQUIRE(condition): stops a debug or sanitizer build where a precondition is broken,
/// with the condition and its place on standard error. In a release build nothing is evaluated.
#if defined(KIROWEB_CHECKED)

#include <cstdio>
#include <cstdlib>

namespace checked {

[[noreturn]] inline void requirementFailed(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: broken precondition: %s\n", file, line, condition);
    std::abort();
}

}  // namespace checked

#define KIROWEB_REQUIRE(condition) \
    ((condition) ? void(0) : ::checked::requirementFailed(#condition, __FILE__, __LINE__))
#else
#define KIROWEB_REQUIRE(condition) static_cast<void>(sizeof((condition) ? 1 : 0))
#endif
