#pragma once

/// KIROWEB_EXPORT marks what the shared library exports; everything else is hidden. KIROWEB_HIDDEN
/// marks what is hidden although it is nested in an exported class.
#if defined(KIROWEB_BUILDING)
#define KIROWEB_EXPORT __attribute__((visibility("default")))
#define KIROWEB_HIDDEN __attribute__((visibility("hidden")))
#else
#define KIROWEB_EXPORT
#define KIROWEB_HIDDEN
#endif
