#pragma once

#include <string>
#include <string_view>

#include "AccessPolicy.hpp"
#include "text/Name.hpp"

namespace link_tool {

/// "https://wind.plot.example:8443", where the gateway of "https://plot.example:8443" serves the
/// session "wind" if that brings a page of its own. Empty if it cannot: the address has a number
/// instead of a host's name, or the session's name cannot be a part of one.
[[nodiscard]] inline std::string ownOrigin(const std::string& address, std::string_view session) {
    const auto host = kirogateway::hostOf(address);
    const auto name = host.substr(0, host.find(':'));
    const auto last = name.substr(name.rfind('.') + 1);
    // "[" begins a number, too.
    const bool isNumber = last.find_first_not_of("0123456789") == std::string::npos ||
                          last.find('[') != std::string::npos;
    const auto label = text::hostLabel(session);
    if (isNumber || label.empty()) return {};
    return address.substr(0, address.size() - host.size()) + label + "." + host;
}

}  // namespace link_tool
