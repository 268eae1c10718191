#pragma once

#include <string>
#include <string_view>
#include <utility>

/// What a subscriber listens to: one channel, or all that begin with a prefix.
///
/// Only a final "/*" is a wildcard; the prefix is what stands before the "*", the slash included.
/// Any other text, the empty one included, matches itself.
class ChannelPattern {
  public:
    explicit ChannelPattern(std::string text)
        : fText(std::move(text)), fIsWildcard(std::string_view(fText).ends_with("/*")) {}

    [[nodiscard]] const std::string& text() const noexcept { return fText; }
    [[nodiscard]] bool isWildcard() const noexcept { return fIsWildcard; }

    [[nodiscard]] bool matches(std::string_view channel) const noexcept {
        if (!fIsWildcard) return channel == fText;
        return channel.starts_with(std::string_view(fText).substr(0, fText.size() - 1));
    }

  private:
    std::string fText;
    bool fIsWildcard;
};
