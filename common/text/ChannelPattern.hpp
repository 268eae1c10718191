#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "checked/Require.hpp"

/// The one meaning of "/*": a text that ends in it is a wildcard, which stands for all channels
/// that begin with what is before the "*", the slash included.
namespace channels {

[[nodiscard]] inline bool isWildcard(std::string_view text) noexcept {
    return text.ends_with("/*");
}
/// REQUIRES: isWildcard(wildcard).
[[nodiscard]] inline std::string_view prefixOf(std::string_view wildcard) noexcept {
    KIROWEB_REQUIRE(isWildcard(wildcard));
    return wildcard.substr(0, wildcard.size() - 1);
}

}  // namespace channels

/// What a subscriber listens to: one channel, or all that begin with a prefix.
///
/// Any text but a wildcard, the empty one included, matches itself.
class ChannelPattern {
  public:
    explicit ChannelPattern(std::string text)
        : fText(std::move(text)), fIsWildcard(channels::isWildcard(fText)) {}

    [[nodiscard]] const std::string& text() const noexcept { return fText; }
    [[nodiscard]] bool isWildcard() const noexcept { return fIsWildcard; }

    [[nodiscard]] bool matches(std::string_view channel) const noexcept {
        if (!fIsWildcard) return channel == fText;
        return channel.starts_with(channels::prefixOf(fText));
    }

  private:
    std::string fText;
    bool fIsWildcard;
};
