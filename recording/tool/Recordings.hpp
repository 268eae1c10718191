#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kirorecording/Source.hpp"

namespace recording_tool {

/// A file that is served. It was opened once: what takes its place later is not served.
struct ServedFile {
    std::string name;  ///< in the address; letters, digits, "_", "-" and "." only, not first a "."
    std::unique_ptr<const kirorecording::Source> source;
};

/// Opens and checks these files, and says where one is damaged. No two have the same name, and none
/// that of one of the page's files. Throws FormatError for what is no recording of this system,
/// std::system_error for what cannot be read.
[[nodiscard]] std::vector<ServedFile> openRecordings(const std::vector<std::string>& files);

}  // namespace recording_tool
