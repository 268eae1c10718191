#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace gatewaytest {

/// One WebSocket frame as a client sees it.
struct Frame {
    unsigned opcode = 0;
    std::string payload;

    /// A close frame, or the end of the connection without one.
    [[nodiscard]] bool isEnd() const { return opcode == 0 || opcode == 8; }
};

/// Takes the whole frames off the front of `bytes`. It does not share the gateway's code.
inline std::vector<Frame> takeFrames(std::string& bytes) {
    std::vector<Frame> frames;
    const auto at = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    while (bytes.size() >= 2) {
        std::size_t head = 2;
        std::size_t size = at(1) & 0x7fU;
        const std::size_t width = size == 126 ? 2 : size == 127 ? 8 : 0;
        if (bytes.size() < head + width) break;
        if (width > 0) size = 0;
        for (std::size_t i = 0; i < width; ++i) size = size << 8U | at(head++);
        if (bytes.size() < head + size) break;
        frames.push_back({at(0) & 0x0fU, bytes.substr(head, size)});
        bytes.erase(0, head + size);
    }
    return frames;
}

/// A message as a page reads it from a batch.
struct Record {
    std::size_t number = 0;
    std::string channel;
    std::string text;
    bool isBase64 = false;

    bool operator==(const Record&) const = default;
};

inline std::vector<Record> readBatch(std::string_view batch) {
    std::vector<Record> records;
    const auto take = [&batch] {
        const auto end = batch.find('\x1e');
        const auto part = batch.substr(0, end);
        batch = end == std::string_view::npos ? std::string_view() : batch.substr(end + 1);
        return part;
    };
    auto number = static_cast<std::size_t>(std::stoull(std::string(take())));
    std::string channel;
    while (!batch.empty()) {
        const auto record = take();
        const auto unit = record.find('\x1f');
        if (unit > 0) channel = record.substr(0, unit);
        auto text = record.substr(unit + 1);
        const bool isBase64 = text.starts_with('\x1f');
        if (isBase64) text.remove_prefix(1);
        records.push_back({number++, channel, std::string(text), isBase64});
    }
    return records;
}

}  // namespace gatewaytest
