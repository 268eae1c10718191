#pragma once

#include <string>

namespace served {

/// An address as an URL names it: "[::1]" of "::1".
[[nodiscard]] inline std::string hostOfUrl(const std::string& address) {
    return address.find(':') == std::string::npos ? address : "[" + address + "]";
}

}  // namespace served
