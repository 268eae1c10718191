#include "TextEncoding.hpp"

#include <openssl/evp.h>

#include <cstddef>

namespace kirogateway {
namespace {

/// Whether all bytes are ASCII and none is a separator. No byte ends the loop, so that compilers
/// look at many at a time.
bool isHarmless(const char* bytes, std::size_t size) {
    unsigned char found = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        const bool isSeparator = (byte | 1U) == 0x1fU;
        found = static_cast<unsigned char>(found | (byte & 0x80U) | (isSeparator ? 1U : 0U));
    }
    return found == 0;
}

/// The length of the sequence that begins at `at`, 0 when it is not valid UTF-8.
std::size_t sequenceLength(const unsigned char* at, std::size_t left) {
    const unsigned first = at[0];
    if (first < 0x80) return 1;
    const std::size_t length = first < 0xc2    ? 0
                               : first < 0xe0  ? 2
                               : first < 0xf0  ? 3
                               : first <= 0xf4 ? 4
                                               : 0;
    if (length == 0 || length > left) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((at[i] & 0xc0U) != 0x80) return 0;
    }
    // The second byte rules out what is too long, the surrogates, and what is above U+10FFFF.
    const unsigned second = at[1];
    if (first == 0xe0 && second < 0xa0) return 0;
    if (first == 0xed && second > 0x9f) return 0;
    if (first == 0xf0 && second < 0x90) return 0;
    if (first == 0xf4 && second > 0x8f) return 0;
    return length;
}

}  // namespace

bool isPlain(std::string_view text) noexcept {
    static constexpr std::size_t kBlock = 16;
    if (isHarmless(text.data(), text.size())) return true;
    std::size_t at = 0;
    while (at < text.size()) {
        if (text.size() - at >= kBlock && isHarmless(text.data() + at, kBlock)) {
            at += kBlock;
            continue;
        }
        if (text[at] == kRecordSeparator || text[at] == kUnitSeparator) return false;
        const auto length = sequenceLength(reinterpret_cast<const unsigned char*>(text.data()) + at,
                                           text.size() - at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

std::string encodeBase64(std::string_view bytes) {
    // OpenSSL counts with int; a piece of whole groups of three ends without padding.
    static constexpr std::size_t kPiece = 3UL * 1024 * 1024;
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // it ends each piece with a zero
    auto* out = reinterpret_cast<unsigned char*>(text.data());
    for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
        const auto piece = bytes.substr(at, kPiece);
        out += EVP_EncodeBlock(out, reinterpret_cast<const unsigned char*>(piece.data()),
                               static_cast<int>(piece.size()));
    }
    text.pop_back();
    return text;
}

}  // namespace kirogateway
