#include "Base64.hpp"

#include <Poco/Base64Encoder.h>

#include <ios>
#include <new>
#include <ostream>
#include <streambuf>

namespace kiro::web::binary {

namespace {

/// Writes into a text that has its full length already. A stream swallows what an allocation
/// throws and goes on, so a growing target would give a truncated text without an error.
class FixedBuffer : public std::streambuf {
  public:
    explicit FixedBuffer(std::string& text) { setp(text.data(), text.data() + text.size()); }
    [[nodiscard]] bool isFull() const { return pptr() == epptr(); }
};

}  // namespace

std::string encodeBase64(const char* data, std::size_t size) {
    std::string text((size + 2) / 3 * 4, '\0');
    FixedBuffer buffer(text);
    std::ostream stream(&buffer);
    Poco::Base64Encoder encoder(stream);
    encoder.rdbuf()->setLineLength(0);
    encoder.write(data, static_cast<std::streamsize>(size));
    const bool closed = encoder.close() == 0;
    if (!closed || !encoder || !stream || !buffer.isFull()) throw std::bad_alloc();
    return text;
}

}  // namespace kiro::web::binary
