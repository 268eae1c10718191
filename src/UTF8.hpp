#pragma once

#include <string>
#include <string_view>

#include "bedrock/text/convertUTF16.hpp"

namespace kiro::web {

/// `text` in UTF-8, by the host's converter; a surrogate without its partner becomes U+FFFD.
inline std::string toUTF8(std::u16string_view text) {
    return bedrock::text::CharsetConverter("UTF-8").fromUTF16(text);
}

}  // namespace kiro::web
