#pragma once

#include <string>
#include <string_view>

namespace kirogateway {

/// Replaces escapes in JSON that stand for half a character ("\ud83d" without its other half) with
/// that of the replacement character. Any browser may send them, since its strings are made of
/// halves, and a parser refuses the whole text for one.
class SurrogateMender {
  public:
    /// The next bytes of a JSON text, its last ones with `isLast`. Returns what can be parsed of
    /// them and of what was held back before; valid until the next call. Throws std::bad_alloc.
    [[nodiscard]] std::string_view mend(std::string_view bytes, bool isLast);

  private:
    std::string fText;
    std::string fHeldBack;  ///< the begin of an escape whose rest has not come
};

}  // namespace kirogateway
