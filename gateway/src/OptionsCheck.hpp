#pragma once

#include "kirogateway/Options.hpp"

namespace kirogateway {

/// Returns `options`. Throws std::invalid_argument for options that cannot be meant: the text is
/// one line that names the option and its value, and says what to do.
[[nodiscard]] Options checked(Options options);

}  // namespace kirogateway
