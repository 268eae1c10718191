#pragma once

#include <string>

#include "kirofigures/Window.hpp"
#include "kirogateway/Options.hpp"

namespace kirofigures::detail {

/// What commands and events are written in, see docs/figures.md.
inline constexpr const char* kVocabulary = "kirofigures/1";
/// Where a page reports its script errors, whatever it is a page of.
inline constexpr const char* kErrorChannel = "/services/ErrorLoggingService/JSErrors";

/// The gateway's options for a window's page. Throws as the constructor of `Window` does.
[[nodiscard]] kirogateway::Options gatewayOptions(const WindowOptions& options,
                                                  const Channels& channels);

/// Why no token has come back, in a few words. `pages`: the gateway's diagnostics.
[[nodiscard]] std::string lateCause(bool hasAnnounced, const std::string& pages);

}  // namespace kirofigures::detail
