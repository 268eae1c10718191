#pragma once

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include "Recording.hpp"

namespace recording_tool {

/// Nanoseconds since 1970.
struct Range {
    std::uint64_t from = 0;
    std::uint64_t to = std::numeric_limits<std::uint64_t>::max();
};

/// A recording in memory.
struct Cut {
    std::string bytes;
    std::uint64_t begin = 0;  ///< of its first message, nanoseconds since 1970
    std::size_t frames = 0;
    bool isThinned = false;  ///< to key frames
};

/// The recording is larger than it may be.
struct TooLarge : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What was shown in a range, from where all is there that is shown at its beginning. What the
/// recording says of itself comes first. Throws TooLarge beyond `most` bytes, std::runtime_error
/// when no frame is in it.
[[nodiscard]] Cut cut(const Recording& run, const Range& range, std::uint64_t most);

/// The same of key frames alone, in at most `most` bytes: all of them, or as many as fit, evenly
/// spread. Each is a whole frame in it. Throws as `cut` does.
[[nodiscard]] Cut thinned(const Recording& run, const Range& range, std::uint64_t most);

}  // namespace recording_tool
