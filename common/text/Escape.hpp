#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace text {

/// So many bytes of a text that comes from outside go into a line of a log, before escaping.
inline constexpr std::size_t kMostQuoted = 200;

/// Returns `text` without anything that could break or forge a line of a log or a terminal: what
/// is not printable ASCII becomes "\xNN", and the backslash is doubled, so that nobody can write
/// an escape by hand. Of a longer text the first `most` bytes are taken, and "..." follows.
[[nodiscard]] inline std::string escaped(std::string_view text, std::size_t most = kMostQuoted) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string line;
    for (const char character : text.substr(0, most)) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\\') {
            line += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7f) {
            line += character;
        } else {
            line += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xfU]};
        }
    }
    if (text.size() > most) line += "...";
    return line;
}

}  // namespace text
