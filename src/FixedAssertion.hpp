#pragma once

#include "bedrock/core/diag/assertion.hpp"

namespace kiro {

/// Where an assertion stands, as the host's diagnostics name it. Fixed texts, which do not follow
/// the lines of this code: those who read the diagnostics search for them.
struct FixedPlace {
    const char* source;
    int line;
    const char* function;
};

/// Reports `condition` to the host's assertion unless it holds. Goes on where the host does.
inline void assertAt(const FixedPlace& place, bool holds, const char* condition) {
    if (!holds) {
        bedrock::core::diag::assertionFailed(condition, place.source, place.line, place.function);
    }
}

}  // namespace kiro
