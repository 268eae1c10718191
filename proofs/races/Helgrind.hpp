#pragma once

#include <valgrind/helgrind.h>

/// Included before everything else where helgrind looks on. It does not see that an atomic counter
/// orders anything; the standard library says so at its reference counts, if it is given the words.
#define _GLIBCXX_SYNCHRONIZATION_HAPPENS_BEFORE(count) \
    ANNOTATE_HAPPENS_BEFORE(count);                    \
    VALGRIND_HG_DISABLE_CHECKING(count, sizeof *(count))
#define _GLIBCXX_SYNCHRONIZATION_HAPPENS_AFTER(count) ANNOTATE_HAPPENS_AFTER(count)
