#pragma once

#include <cstddef>
#include <string_view>

namespace kirogateway {

/// Whether a UTF-8 text that comes in parts ends within a character. One thread.
class CharacterEnd {
  public:
    /// The next bytes. REQUIRES: all that came is valid but for what may be missing at its end.
    void read(std::string_view bytes) noexcept {
        constexpr std::size_t kLongest = 4;
        // What is before the last four bytes has no say in it.
        if (bytes.size() > kLongest) bytes.remove_prefix(bytes.size() - kLongest);
        for (const char c : bytes) {
            const auto byte = static_cast<unsigned char>(c);
            const bool goesOn = (byte & 0xc0U) == 0x80U;
            if (!goesOn) {
                fMissing = byte >= 0xf0 ? 3 : byte >= 0xe0 ? 2 : byte >= 0xc0 ? 1 : 0;
            } else if (fMissing > 0) {
                --fMissing;
            }
        }
    }
    [[nodiscard]] bool isWithin() const noexcept { return fMissing > 0; }

  private:
    unsigned fMissing = 0;  ///< bytes of the last character
};

}  // namespace kirogateway
