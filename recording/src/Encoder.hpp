#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Format.hpp"

namespace kirorecording {

static_assert(std::endian::native == std::endian::little, "the format is little-endian");

/// Appends one record to a text; its length is known when this goes.
class Encoder {
  public:
    Encoder(std::string& out, std::uint8_t opcode) : fOut(out), fBegin(out.size() + kRecordHead) {
        number(opcode);
        number(std::uint64_t{0});
    }
    ~Encoder() { setLength(fBegin - sizeof(std::uint64_t), fOut.size() - fBegin + fApart); }
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    template <typename Number>
    Encoder& number(Number value) {
        char bytes[sizeof value];
        std::memcpy(bytes, &value, sizeof value);
        fOut.append(bytes, sizeof value);
        return *this;
    }
    Encoder& text(std::string_view text) {
        number(static_cast<std::uint32_t>(text.size()));
        return raw(text);
    }
    Encoder& raw(std::string_view bytes) {
        fOut.append(bytes);
        return *this;
    }
    /// So many bytes more, which are not in the text.
    void apart(std::size_t bytes) { fApart = bytes; }
    /// An array or a map of so many bytes.
    Encoder& length(std::size_t bytes) { return number(static_cast<std::uint32_t>(bytes)); }

  private:
    void setLength(std::size_t at, std::uint64_t length) noexcept {
        std::memcpy(fOut.data() + at, &length, sizeof length);
    }

    std::string& fOut;
    const std::size_t fBegin;
    std::size_t fApart = 0;
};

}  // namespace kirorecording
