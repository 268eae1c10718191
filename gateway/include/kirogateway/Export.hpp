#pragma once

/// Marks what the gateway's shared library exports; everything else is hidden.
#define KIROGATEWAY_EXPORT __attribute__((visibility("default")))
