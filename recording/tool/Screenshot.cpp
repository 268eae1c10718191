#include "Screenshot.hpp"

namespace recording_tool {
std::string findBrowser() { return {}; }
void takeScreenshot(const std::string&, const std::string&, const std::string&,
                    const std::string&) {}
}  // namespace recording_tool
