#pragma once

#include <Poco/Base64Encoder.h>

#include <cstddef>
#include <ios>
#include <new>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

/// Base64 in its standard alphabet, padded with "=", on one line however long it is. POCO encodes:
/// whoever includes this links Poco::Foundation.
namespace encoding {

namespace detail {

/// Writes into a part of a text that has its full length already. A stream swallows what an
/// allocation throws and goes on, so that a growing target would give a truncated text without an
/// error.
class FixedBuffer : public std::streambuf {
  public:
    FixedBuffer(char* begin, char* end) { setp(begin, end); }
    [[nodiscard]] bool isFull() const { return pptr() == epptr(); }
};

}  // namespace detail

/// Length of the Base64 text of `size` bytes.
[[nodiscard]] constexpr std::size_t base64Length(std::size_t size) { return (size + 2) / 3 * 4; }

/// Appends the Base64 text of `bytes` to `text`. Throws `std::bad_alloc` or
/// `std::length_error` when there is no room; `text` then ends in any characters.
inline void appendBase64(std::string& text, std::string_view bytes) {
    const std::size_t begin = text.size();
    text.resize(begin + base64Length(bytes.size()));
    detail::FixedBuffer buffer(text.data() + begin, text.data() + text.size());
    std::ostream stream(&buffer);
    Poco::Base64Encoder encoder(stream);
    encoder.rdbuf()->setLineLength(0);
    encoder.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    const bool closed = encoder.close() == 0;
    if (!closed || !encoder || !stream || !buffer.isFull()) throw std::bad_alloc();
}

/// The Base64 text of `bytes`. Throws `std::bad_alloc` or `std::length_error`.
[[nodiscard]] inline std::string encodeBase64(std::string_view bytes) {
    std::string text;
    appendBase64(text, bytes);
    return text;
}

}  // namespace encoding
