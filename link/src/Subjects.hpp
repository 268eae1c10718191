#pragma once

#include <algorithm>
#include <string>
#include <string_view>

/// The subjects of one session; docs/link.md says what goes over which.
namespace kirolink::subjects {

inline constexpr std::size_t kMaxName = 64;

/// Whether `name` can name a session or a gateway: 1 to 64 of A-Z, a-z, 0-9, "_" and "-".
[[nodiscard]] inline bool isName(std::string_view name) noexcept {
    return !name.empty() && name.size() <= kMaxName && std::ranges::all_of(name, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-';
    });
}

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
