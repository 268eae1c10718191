#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Recording.hpp"
#include "Scene.hpp"

namespace recording_tool {

/// What the figures show at `time`, which is that of a frame. Throws FormatError, also where the
/// recording has nothing whole before.
[[nodiscard]] Scene sceneAt(const Recording& run, std::uint64_t time);

/// A table of each series that has elements, in the order of creation: the name of a file, which is
/// plain, and its text by RFC 4180. What is not a number is an empty cell; on an axis of time
/// values are dates by ISO 8601, UTC, to the microsecond. A pixel of an image is a row. Throws
/// WrongText for properties that are none.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> tablesOf(const Scene& scene);

}  // namespace recording_tool
