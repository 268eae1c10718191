#pragma once

/// Marks what the gateway offers, also from within a shared library that it is linked into.
#define KIROGATEWAY_EXPORT __attribute__((visibility("default")))
