#pragma once

#include "kirohost/Export.hpp"

/// The host's switches for the traffic to the page. All of them on any thread; each is asked
/// afresh every time it matters.
namespace kiro::web {

/// Whether commands may travel over the binary channel. The stand-in starts off.
KIROHOST_EXPORT bool usingBinaryChannelForCommands();
/// Whether a block that was not delivered may be published as text. Starts on.
KIROHOST_EXPORT bool usingBinaryChannelFallback();
/// Whether the user is to be warned of a block that was not delivered. Starts on.
KIROHOST_EXPORT bool warnAboutBinaryChannelFallback();

}  // namespace kiro::web
