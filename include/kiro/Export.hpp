#pragma once

/// Marks what the shared library exports; everything else is hidden.
#if defined(KIROWEB_BUILDING)
#define KIROWEB_EXPORT __attribute__((visibility("default")))
#else
#define KIROWEB_EXPORT
#endif
