#pragma once

#include <cstddef>
#include <string>

namespace kiro::web::binary {

/// Standard Base64 with "=" padding, in one line however long. Throws `std::bad_alloc`, or
/// `std::length_error` when the text could not be addressed; never a text cut short.
std::string encodeBase64(const char* data, std::size_t size);

}  // namespace kiro::web::binary
