#pragma once

#include <string>
#include <string_view>

namespace link_tool {

/// Writes one line on standard error: the time and `name="value"` pairs, of which values are
/// escaped. A line that cannot be written is left out. Any thread.
void logLine(std::string_view event, std::string_view session = {},
             std::string_view detail = {}) noexcept;

/// The line without its time and end.
[[nodiscard]] std::string lineText(std::string_view event, std::string_view session,
                                   std::string_view detail);

}  // namespace link_tool
