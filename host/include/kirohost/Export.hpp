#pragma once

/// Marks what the stand-in host's shared library exports; everything else is hidden.
#if defined(KIROHOST_BUILDING)
#define KIROHOST_EXPORT __attribute__((visibility("default")))
#else
#define KIROHOST_EXPORT
#endif

/// Keeps the type information of a header-only class one and the same in every shared library,
/// so that an exception thrown in one is caught by its type in another.
#define KIROHOST_VISIBLE __attribute__((visibility("default")))
