#pragma once

#include <cstdint>
#include <string_view>

#include "kirorecording/Sink.hpp"

namespace recording_tool {

/// The largest recording that browsers take as one text of a document.
inline constexpr std::uint64_t kMostInPage = std::uint64_t{256} << 20U;

/// How many bytes of a recording fit into a single file of `most` bytes. 0: not even the page does.
[[nodiscard]] std::uint64_t roomInFile(std::uint64_t most);

/// Writes the page with a recording in it, opened at `at` seconds since its beginning; does not
/// close the sink. Throws std::runtime_error when the program has no page.
void writeSingleFile(kirorecording::Sink& sink, std::string_view recording, double at);

}  // namespace recording_tool
