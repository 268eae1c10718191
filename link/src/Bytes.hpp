#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Values in bytes, little-endian, as all that a link says.
namespace kirolink {

/// Numbers stay below this, so that they can be counted with.
inline constexpr std::uint64_t kEndOfNumbers = std::uint64_t{1} << 53U;
/// Nobody's clock is further from 1970, in microseconds; sums and differences stay far from the
/// end of the numbers.
inline constexpr std::int64_t kEndOfTime = std::int64_t{1} << 53U;

/// Takes values from the front of some bytes. Once something is not there or not allowed, nothing
/// is.
class Reader {
  public:
    explicit Reader(std::string_view bytes) noexcept : fLeft(bytes) {}

    [[nodiscard]] bool isAtEnd() const noexcept { return fIsGood && fLeft.empty(); }
    [[nodiscard]] bool isGood() const noexcept { return fIsGood; }
    void require(bool holds) noexcept { fIsGood = fIsGood && holds; }

    std::uint64_t number(std::size_t size) noexcept {
        const auto bytes = take(size);
        std::uint64_t value = 0;
        for (std::size_t i = bytes.size(); i-- > 0;) {
            value = value << 8U | static_cast<unsigned char>(bytes[i]);
        }
        return value;
    }
    /// One with which can be counted.
    std::uint64_t count() noexcept {
        const auto value = number(8);
        require(value < kEndOfNumbers);
        return value;
    }
    std::int64_t time() noexcept {
        const auto value = static_cast<std::int64_t>(number(8));
        require(-kEndOfTime < value && value < kEndOfTime);
        return value;
    }
    std::string_view take(std::size_t size) noexcept {
        require(size <= fLeft.size());
        if (!fIsGood) return {};
        const auto taken = fLeft.substr(0, size);
        fLeft.remove_prefix(size);
        return taken;
    }
    std::string_view text(std::size_t lengthSize, std::size_t most) noexcept {
        const auto size = number(lengthSize);
        require(size <= most);
        return fIsGood ? take(size) : std::string_view();
    }
    std::string_view rest(std::size_t most) noexcept {
        require(fLeft.size() <= most);
        return take(fLeft.size());
    }

  private:
    std::string_view fLeft;
    bool fIsGood = true;
};

inline void put(std::string& to, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) to += static_cast<char>(value >> (8 * i) & 0xffU);
}
inline void putText(std::string& to, std::string_view text, std::size_t lengthSize) {
    put(to, text.size(), lengthSize);
    to += text;
}

}  // namespace kirolink
