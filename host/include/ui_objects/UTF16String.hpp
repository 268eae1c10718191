#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace ui_objects {

/// UTF-16 text as the graphics objects hold it.
class UTF16String {
  public:
    UTF16String() = default;
    explicit UTF16String(std::u16string text) : fText(std::move(text)) {}
    /// The code units, not necessarily zero-terminated.
    [[nodiscard]] const char16_t* data() const noexcept { return fText.data(); }
    /// Number of code units.
    [[nodiscard]] std::size_t length() const noexcept { return fText.length(); }

  private:
    std::u16string fText;
};

}  // namespace ui_objects
