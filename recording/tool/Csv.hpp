#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Recording.hpp"

namespace recording_tool {

/// What the figures show at `time`, which is that of a frame: a table of each series that has
/// elements, in the order of creation. The name of a file, which is plain, and its text by RFC
/// 4180. What is not a number is an empty cell; on an axis of time values are dates by ISO 8601,
/// UTC, to the microsecond. A pixel of an image is a row. Throws FormatError, also where the
/// recording has nothing whole before.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> tablesAt(const Recording& run,
                                                                        std::uint64_t time);

}  // namespace recording_tool
