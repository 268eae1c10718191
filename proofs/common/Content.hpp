#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

/// What the engine of a load publishes: every message says by its content which one it is, so that
/// a page can tell whether one is missing, out of its place or not what was sent.
namespace load {

inline constexpr const char* kTexts = "/load/texts";
inline constexpr const char* kBlocks = "/load/blocks";

/// A text, or a block's first bytes.
struct Message {
    std::uint64_t number = 0;  ///< counts from 1, texts and blocks apart
    std::uint64_t texts = 0;   ///< published before it
    std::uint64_t at = 0;      ///< steady nanoseconds, the same for all processes of a machine
};

/// "NUMBER AT " and letters, both of which and how many follow from the number.
inline std::string textOf(const Message& text) {
    return std::to_string(text.number) + ' ' + std::to_string(text.at) + ' ' +
           std::string(text.number % 61, static_cast<char>('a' + text.number % 26));
}

/// Empty when it is not what was published.
inline std::optional<Message> readText(std::string_view bytes) {
    Message text;
    const char* const end = bytes.data() + bytes.size();
    const auto* const space = std::from_chars(bytes.data(), end, text.number).ptr;
    if (space != end) std::from_chars(space + 1, end, text.at);
    text.texts = text.number - 1;
    if (textOf(text) != bytes) return {};
    return text;
}

/// Most are small, and each 20th one is so large that it may go in pieces.
inline std::size_t sizeOf(const Message& block) noexcept {
    const auto words = block.number * 2654435761U % 2048;
    return sizeof block + sizeof(std::uint64_t) * (block.number % 20 == 0 ? 4 * words : words);
}

inline std::string blockOf(const Message& block) {
    std::string bytes(sizeOf(block), '\0');
    std::memcpy(bytes.data(), &block, sizeof block);
    for (auto at = sizeof block; at < bytes.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t word = (block.number + at) * 0x9e3779b97f4a7c15U;
        std::memcpy(bytes.data() + at, &word, sizeof word);
    }
    return bytes;
}

/// Empty when it is not what was sent.
inline std::optional<Message> readBlock(std::string_view bytes) {
    Message block;
    if (bytes.size() < sizeof block) return {};
    std::memcpy(&block, bytes.data(), sizeof block);
    if (bytes.size() != sizeOf(block) || bytes != blockOf(block)) return {};
    return block;
}

}  // namespace load
