#include "ByteRange.hpp"

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

namespace recording_tool {

namespace {

constexpr std::string_view kUnit = "bytes=";

/// Digits only; a number that is larger than any file is the largest that there is.
std::optional<std::uint64_t> digitsOf(std::string_view text) noexcept {
    std::uint64_t number = 0;
    const auto* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (rest != end || error == std::errc::invalid_argument) return std::nullopt;
    return error == std::errc() ? number : std::numeric_limits<std::uint64_t>::max();
}

}  // namespace

std::optional<ByteRange> byteRange(std::string_view field, std::uint64_t fileSize) noexcept {
    if (!field.starts_with(kUnit)) return std::nullopt;
    field.remove_prefix(kUnit.size());
    const auto dash = field.find('-');
    if (dash == std::string_view::npos) return std::nullopt;
    const auto first = digitsOf(field.substr(0, dash));
    const auto last = digitsOf(field.substr(dash + 1));
    const bool isOpen = dash + 1 == field.size();
    if (dash == 0) {
        if (!last) return std::nullopt;
        const auto size = std::min(*last, fileSize);
        return ByteRange{fileSize - size, size};
    }
    if (!first || (!isOpen && (!last || *last < *first))) return std::nullopt;
    if (*first >= fileSize) return ByteRange{*first, 0};
    // As a count, which cannot overflow since it lies within the file.
    const auto rest = fileSize - *first;
    return ByteRange{*first, isOpen || *last >= fileSize ? rest : *last - *first + 1};
}

}  // namespace recording_tool
