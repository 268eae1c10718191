#pragma once

#include <cstdlib>
#include <string_view>

namespace other {

/// Whether the environment's OTHER_HOST_FAULT asks for this fault: what a host may get wrong, to
/// see that the conformance suite finds it. faults.sh lists them beside the tests that fail.
inline bool hasFault(std::string_view name) {
    static const char* const chosen = std::getenv("OTHER_HOST_FAULT");
    return chosen != nullptr && name == chosen;
}

}  // namespace other
