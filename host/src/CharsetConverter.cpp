#include <stdexcept>

#include "bedrock/text/convertUTF16.hpp"

namespace bedrock::text {
namespace {

constexpr char32_t kReplacement = 0xfffd;

constexpr bool isHighSurrogate(char16_t unit) { return unit >= 0xd800 && unit <= 0xdbff; }
constexpr bool isLowSurrogate(char16_t unit) { return unit >= 0xdc00 && unit <= 0xdfff; }

/// Takes the first character off `text`, which is not empty.
char32_t takeCharacter(std::u16string_view& text) {
    const char16_t first = text.front();
    text.remove_prefix(1);
    if (isHighSurrogate(first) && !text.empty() && isLowSurrogate(text.front())) {
        const auto high = static_cast<char32_t>(first - 0xd800);
        const auto low = static_cast<char32_t>(text.front() - 0xdc00);
        text.remove_prefix(1);
        return 0x10000U + (high << 10U) + low;
    }
    return isHighSurrogate(first) || isLowSurrogate(first) ? kReplacement : first;
}

void appendUTF8(std::string& out, char32_t character) {
    const auto append = [&out](char32_t byte) { out += static_cast<char>(byte); };
    const auto tail = [character](unsigned shift) {
        return 0x80U | ((character >> shift) & 0x3fU);
    };
    if (character < 0x80) {
        append(character);
    } else if (character < 0x800) {
        append(0xc0U | (character >> 6U));
        append(tail(0));
    } else if (character < 0x10000) {
        append(0xe0U | (character >> 12U));
        append(tail(6));
        append(tail(0));
    } else {
        append(0xf0U | (character >> 18U));
        append(tail(12));
        append(tail(6));
        append(tail(0));
    }
}

}  // namespace

CharsetConverter::CharsetConverter(std::string_view charset) {
    if (charset != "UTF-8") {
        throw std::invalid_argument("No converter for the character set \"" + std::string(charset) +
                                    "\".");
    }
}

std::string CharsetConverter::fromUTF16(std::u16string_view text) const {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) appendUTF8(result, takeCharacter(text));
    return result;
}

}  // namespace bedrock::text
