#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace kirorecording {

/// A record is shorter than its fields, or a field has a value that cannot be.
struct WrongRecord {
    const char* what;
};

/// Takes the fields of a record, one behind the other. Throws WrongRecord.
class Decoder {
  public:
    explicit Decoder(std::string_view content) noexcept : fRest(content) {}

    template <typename Number>
    Number number() {
        Number value;
        std::memcpy(&value, raw(sizeof value).data(), sizeof value);
        return value;
    }
    std::string_view raw(std::uint64_t size) {
        if (size > fRest.size()) throw WrongRecord{"a field is longer than its record"};
        const auto bytes = fRest.substr(0, size);
        fRest.remove_prefix(size);
        return bytes;
    }
    std::string_view text() { return raw(number<std::uint32_t>()); }
    [[nodiscard]] std::string_view rest() const noexcept { return fRest; }
    [[nodiscard]] bool isAtEnd() const noexcept { return fRest.empty(); }

  private:
    std::string_view fRest;
};

/// A record in memory.
struct Record {
    std::uint8_t opcode = 0;
    std::string_view content;
};

/// The record at the beginning of what is left. REQUIRES: something is.
inline Record recordOf(Decoder& records) {
    const auto opcode = records.number<std::uint8_t>();
    return {opcode, records.raw(records.number<std::uint64_t>())};
}

}  // namespace kirorecording
