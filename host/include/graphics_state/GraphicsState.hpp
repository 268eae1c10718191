#pragma once

#include <cstdint>

#include "kirohost/Export.hpp"

/// The host's graphics settings. All operations on any thread.
class KIROHOST_EXPORT GraphicsState {
  public:
    /// Seconds after which a drawnow flush gives up; 0 means never. The stand-in starts at 60.
    static std::int64_t kiroGetDrawnowTimeout();
    /// Whether the client's messages and the tokens' lives are recorded. Starts off.
    static bool kiroIsDrawnowTimeoutLoggingEnabled();
    /// Whether this host is the developers' own, which also gets the internal warnings. Starts
    /// off.
    static bool isAtOstrel();
    /// Calls the hook that the embedding program installed for drawnow time-outs, if any.
    static void kiroInvokeDrawnowTimeoutCallback();
};
