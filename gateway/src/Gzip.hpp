#pragma once

#include <string>
#include <string_view>

namespace kirogateway {

/// `text` in the gzip format (RFC 1952), for readers to whom size matters more than the time that
/// this takes. Throws std::bad_alloc only. Any thread.
[[nodiscard]] std::string gzipped(std::string_view text);

}  // namespace kirogateway
