#pragma once

#include <string>

#include "kirofigures/Window.hpp"
#include "kirogateway/Options.hpp"
#include "kirolink/Options.hpp"

namespace kirofigures::detail {

/// What commands and events are written in, see docs/figures.md.
inline constexpr const char* kVocabulary = "kirofigures/1";
/// Where a page reports its script errors, whatever it is a page of.
inline constexpr const char* kErrorChannel = "/services/ErrorLoggingService/JSErrors";

/// The gateway's options for a window's page. Throws as the constructor of `Window` does.
[[nodiscard]] kirogateway::Options gatewayOptions(const WindowOptions& options,
                                                  const Channels& channels);

/// The options of a link to other machines, which `file` leads to: prints a link for each gateway
/// that serves the page, if that is wanted. Throws as the constructor of `Window` does.
[[nodiscard]] kirolink::Options linkOptions(const WindowOptions& options, const Channels& channels,
                                            const std::string& file);

/// Why no token has come back, in a few words. `pages`: the diagnostics of the gateway, or of the
/// link, which has gateways in their place.
[[nodiscard]] std::string lateCause(bool hasAnnounced, const std::string& pages);

}  // namespace kirofigures::detail
