#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

/// What is the same wherever this system's page is served.
namespace served {

/// The path where a single-use code is exchanged for the token.
inline constexpr std::string_view kTokenPath = "/kiroweb/token";
inline constexpr std::string_view kPlainText = "text/plain; charset=utf-8";
/// Bytes of the largest body that is read.
inline constexpr std::size_t kMaxBody = 128;

/// Whether `text` has visible ASCII characters only, and one at least.
[[nodiscard]] inline bool isClean(std::string_view text) noexcept {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c > 0x20 && c < 0x7f; });
}

/// The header fields that keep what is served to its page, each with its line end. `connect`: what
/// the page may connect to, `frameAncestors`: who may show it in a frame, as a policy says them.
[[nodiscard]] inline std::string securityFields(std::string_view connect,
                                                std::string_view frameAncestors) {
    return "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
           "img-src 'self' data: blob:; font-src 'self'; connect-src " +
           std::string(connect) + "; base-uri 'none'; form-action 'none'; frame-ancestors " +
           std::string(frameAncestors) +
           "\r\n"
           "Referrer-Policy: no-referrer\r\n"
           "X-Content-Type-Options: nosniff\r\n"
           "Cross-Origin-Resource-Policy: same-origin\r\n"
           "Cross-Origin-Opener-Policy: same-origin\r\n"
           "Cache-Control: no-store\r\n";
}

}  // namespace served
