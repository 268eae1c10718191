#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Recording.hpp"

namespace recording_tool {

/// All that was shown at a moment, as a whole frame.
struct KeyFrame {
    std::uint64_t time = 0;  ///< nanoseconds since 1970
    /// Its blocks and commands, and its mark.
    std::vector<std::pair<kirorecording::Topic, std::string>> parts;
};

/// A snapshot's parts: its blocks, its commands and a mark. Throws WrongText.
[[nodiscard]] KeyFrame keyFrameOf(std::string_view snapshot, std::uint64_t time);

/// Calls for each whole frame and snapshot from the one on with which `from` can be shown, up to
/// `to`. Throws FormatError.
void forEachKeyFrame(const Recording& run, std::uint64_t from, std::uint64_t to,
                     const std::function<void(const KeyFrame&)>& take);

}  // namespace recording_tool
