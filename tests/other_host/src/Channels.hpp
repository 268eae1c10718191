#pragma once

#include <string_view>

namespace other {

/// "/*" at the end of `pattern` stands for whatever follows.
bool matches(std::string_view pattern, std::string_view name);

}  // namespace other
