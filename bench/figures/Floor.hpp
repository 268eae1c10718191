#pragma once

#include <string>

#include "Show.hpp"

namespace bench {

/// What a frame costs when a page of a few lines draws what `picture` names, each time anew and
/// with its data at hand; see page/floors.mjs.
[[nodiscard]] Costs floorOf(const std::string& picture, bool quick);

}  // namespace bench
