#pragma once

#include "kirohost/Export.hpp"

namespace bedrock::core::diag {

/// Reports a failed internal invariant: the text of the condition, the source's name, the line
/// and the function. The host's policy decides whether the process ends here; where it does not,
/// the call returns and the caller goes on. Any thread.
KIROHOST_EXPORT void assertionFailed(const char* condition, const char* source, int line,
                                     const char* function);

/// As above, and the process ends under every policy.
[[noreturn]] KIROHOST_EXPORT void terminate(const char* condition, const char* source, int line,
                                            const char* function);

}  // namespace bedrock::core::diag
