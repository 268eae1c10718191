#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace kirofigures {

/// A colour as text: "#rrggbb", or "#rrggbbaa" with how opaque it is. A text that is none is found
/// by the operation that takes the colour, which can say whose it is.
class Color {
  public:
    // Implicit: callers write the text.
    Color(const char* text) : fText(text) {}
    Color(std::string text) : fText(std::move(text)) {}
    Color(std::string_view text) : fText(text) {}
    /// Each part from 0 to 255; `alpha` 255 is opaque.
    [[nodiscard]] static Color rgb(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                                   std::uint8_t alpha = 255);

    [[nodiscard]] const std::string& text() const noexcept { return fText; }
    [[nodiscard]] bool isValid() const noexcept;

  private:
    std::string fText;
};

/// How values become colours. All but turbo rise evenly in lightness, viridis and cividis for the
/// colour-blind, too.
enum class ColorMap { kViridis, kCividis, kGray, kTurbo };

}  // namespace kirofigures
