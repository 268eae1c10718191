#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "GatewayEnd.hpp"
#include "kirogateway/Options.hpp"

/// A page that an engine brings, as it goes over a link: one string of bytes, see docs/link.md.
namespace kirolink {

inline constexpr std::size_t kMostFiles = 4096;
inline constexpr std::size_t kMostOfPath = 1024;       ///< bytes of a file's path
inline constexpr std::size_t kMostOfFileType = 256;    ///< and of its type
inline constexpr std::size_t kPagePart = 64UL * 1024;  ///< of what is fetched at a time
/// Of what an engine may bring: as much as it sends to a gateway at once, so that fetching it waits
/// for nothing but the line.
inline constexpr std::size_t kMostOfPage = std::size_t{4} << 20U;

/// Throws std::invalid_argument, with a text of one line, for files that go beyond these bounds or
/// have no "/". REQUIRES: there is a file.
[[nodiscard]] std::string writePage(const std::vector<kirogateway::Asset>& files);
/// Empty for bytes that are not exactly one page. What stands in the files is not looked at. Throws
/// std::bad_alloc.
[[nodiscard]] std::optional<std::vector<kirogateway::Asset>> readPage(std::string_view bytes);
/// As a welcome says it. `page` is empty: there is none.
[[nodiscard]] PageDigest digestOf(const std::string& page);

}  // namespace kirolink
