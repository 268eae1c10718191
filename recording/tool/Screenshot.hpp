#pragma once

#include <string>

namespace recording_tool {

/// The path of a Chromium on the PATH. Throws std::runtime_error when there is none.
[[nodiscard]] std::string findBrowser();

/// Makes a picture, a PNG file, of what a browser without a window shows of the page in that file,
/// and `fragment` behind its name. Throws std::runtime_error when that does not succeed.
void takeScreenshot(const std::string& browser, const std::string& page,
                    const std::string& fragment, const std::string& picture);

}  // namespace recording_tool
