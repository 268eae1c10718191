#pragma once

#include <string>
#include <unordered_map>

namespace kiro::web::binary {

/// What a VM keeps by channel name. References to values stay valid until their channel is
/// erased.
template <typename Value>
using TestableMapStorage = std::unordered_map<std::string, Value>;

}  // namespace kiro::web::binary
