#pragma once

#include <string>
#include <string_view>

#include "kirohost/Export.hpp"

namespace bedrock::text {

/// Converts UTF-16 text into a byte character set.
class KIROHOST_EXPORT CharsetConverter {
  public:
    /// Opens the converter for `charset`; the stand-in knows "UTF-8" and throws
    /// `std::invalid_argument` for any other name.
    explicit CharsetConverter(std::string_view charset);

    /// The text in the charset. A surrogate without its partner becomes U+FFFD; data never makes
    /// it throw (lack of memory does).
    [[nodiscard]] std::string fromUTF16(std::u16string_view text) const;
};

}  // namespace bedrock::text
