#pragma once

/// Marks what the link's shared library exports; everything else is hidden.
#define KIROLINK_EXPORT __attribute__((visibility("default")))
