#pragma once

#include <string>

namespace kirofigures::detail {

/// Returns the text in `file`, which lets a page in. When there is no such file, one is made with a
/// new text, readable for its owner only. Throws std::system_error when it cannot be read or made,
/// std::invalid_argument when others may read it or it holds no such text; the text names the file.
[[nodiscard]] std::string tokenFrom(const std::string& file);

}  // namespace kirofigures::detail
