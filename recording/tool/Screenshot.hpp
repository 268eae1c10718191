#pragma once

#include <cstdint>
#include <string>

namespace recording_tool {

/// The path of a Chromium on the PATH. Throws std::runtime_error when there is none.
[[nodiscard]] std::string findBrowser();

/// What a browser without a window shows of the page in that file at a frame: the bytes of a PNG
/// file. `folder`, which is there, is for what the browser keeps. Throws std::runtime_error when it
/// does not succeed within a minute.
[[nodiscard]] std::string screenshotOf(const std::string& browser, const std::string& page,
                                       std::uint64_t frame, const std::string& folder);

}  // namespace recording_tool
