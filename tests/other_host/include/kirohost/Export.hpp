#pragma once

// The headers that this host shares with the stand-in ask for these. Here everything is exported.
#define KIROHOST_EXPORT __attribute__((visibility("default")))
#define KIROHOST_VISIBLE __attribute__((visibility("default")))
