#pragma once

#include <string>
#include <string_view>

#include "text/Name.hpp"

/// The subjects of one session; docs/link.md says what goes over which.
namespace kirolink::subjects {

using text::isName;

[[nodiscard]] inline std::string of(const std::string& session, const char* what) {
    return "kiroweb." + session + '.' + what;
}
/// Beats of the engine's, for all who look for sessions.
[[nodiscard]] inline std::string beat(const std::string& session) { return of(session, "beat"); }
/// What an engine sends to all of its gateways.
[[nodiscard]] inline std::string down(const std::string& session) { return of(session, "down"); }
/// What an engine sends to one gateway.
[[nodiscard]] inline std::string to(const std::string& session, const std::string& gateway) {
    return of(session, "to.") + gateway;
}
/// What a gateway sends. `gateway` may be "*".
[[nodiscard]] inline std::string from(const std::string& session, const std::string& gateway) {
    return of(session, "from.") + gateway;
}
/// What is behind the last dot: whose subject it is.
[[nodiscard]] inline std::string_view lastPart(std::string_view subject) noexcept {
    return subject.substr(subject.rfind('.') + 1);
}

}  // namespace kirolink::subjects
