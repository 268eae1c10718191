#include "kirorecording/Reader.hpp"

#include <algorithm>
#include <utility>

#include "Decoder.hpp"
#include "Format.hpp"
#include "checked/Require.hpp"

namespace kirorecording {

namespace {

/// Of a chunk's record, up to its compression.
constexpr std::uint64_t kChunkHead = kRecordHead + 8 + 8 + 8 + 4 + 4;
/// What a compression may be called.
constexpr std::uint64_t kMostCompression = 32;
constexpr std::uint64_t kMostHeader = 64UL * 1024;

/// The fields of a chunk's record that stand before its body.
struct ChunkHead {
    std::uint64_t length = 0;  ///< of the whole record
    std::uint64_t body = 0;    ///< where the body begins
    std::uint32_t crc = 0;
    ChunkInfo info;
};

/// REQUIRES: the record lies within the source.
ChunkHead headOf(const Source& source, std::uint64_t offset, std::uint64_t length) {
    const auto bytes =
        source.read(offset, std::min(length, kChunkHead + kMostCompression + sizeof length));
    Decoder head(bytes);
    if (head.number<std::uint8_t>() != op::kChunk) throw WrongRecord{"no chunk is there"};
    ChunkHead found;
    found.length = head.number<std::uint64_t>() + kRecordHead;
    auto& info = found.info;
    info.first = head.number<std::uint64_t>();
    info.last = head.number<std::uint64_t>();
    info.size = head.number<std::uint64_t>();
    found.crc = head.number<std::uint32_t>();
    info.compression = head.text();
    info.compressedSize = head.number<std::uint64_t>();
    info.offset = offset;
    info.length = length;
    found.body = offset + bytes.size() - head.rest().size();
    if (found.length != length || info.compressedSize != offset + length - found.body) {
        throw WrongRecord{"the chunk's length is not that of its records"};
    }
    return found;
}

/// 0 stands for none in the format. What nobody can check is not handed out.
std::string mismatch(const char* what, std::uint32_t said) {
    return std::string("the ") + what + (said == 0 ? " has no checksum" : "'s checksum is wrong");
}

bool isSame(const ChunkInfo& one, const ChunkInfo& other) {
    return one.first == other.first && one.last == other.last && one.size == other.size &&
           one.compression == other.compression && one.compressedSize == other.compressedSize;
}

Message messageOf(std::string_view content) {
    Decoder fields(content);
    Message message;
    message.channel = fields.number<std::uint16_t>();
    message.sequence = fields.number<std::uint32_t>();
    message.time = fields.number<std::uint64_t>();
    static_cast<void>(fields.number<std::uint64_t>());  // published: the same, with us
    message.data = fields.rest();
    return message;
}

ChunkInfo infoOf(std::string_view content) {
    Decoder fields(content);
    ChunkInfo info;
    info.first = fields.number<std::uint64_t>();
    info.last = fields.number<std::uint64_t>();
    info.offset = fields.number<std::uint64_t>();
    info.length = fields.number<std::uint64_t>();
    Decoder indexes(fields.text());
    while (!indexes.isAtEnd()) {
        const auto channel = indexes.number<std::uint16_t>();
        info.indexes[channel] = indexes.number<std::uint64_t>();
    }
    info.indexLength = fields.number<std::uint64_t>();
    info.compression = fields.text();
    info.compressedSize = fields.number<std::uint64_t>();
    info.size = fields.number<std::uint64_t>();
    return info;
}

}  // namespace

FormatError::FormatError(const std::string& name, std::uint64_t offset, const std::string& what)
    : std::runtime_error(name + ": offset " + std::to_string(offset) + ": " + what),
      fOffset(offset) {}

std::optional<Message> Chunk::next() {
    Decoder rest(std::string_view(fRecords).substr(fAt));
    while (!rest.isAtEnd()) {
        const auto record = recordOf(rest);
        fAt = fRecords.size() - rest.rest().size();
        if (record.opcode == op::kMessage) return messageOf(record.content);
    }
    return {};
}

Reader::Reader(const Source& source, const Limits& limits) : fSource(source), fLimits(limits) {
    readHeader();
    if (!readIndex()) scan();
}

void Reader::fail(std::uint64_t offset, const std::string& what) const {
    throw FormatError(fSource.name(), offset, what);
}

std::optional<std::uint16_t> Reader::find(std::string_view topic) const noexcept {
    for (const auto& [id, channel] : fChannels) {
        if (channel.topic == topic) return id;
    }
    return {};
}

void Reader::readHeader() {
    const auto begin = fSource.read(0, std::min(fSource.size(), kMostHeader));
    if (!begin.starts_with(kMagic)) fail(0, "this is no recording");
    try {
        Decoder records(std::string_view(begin).substr(kMagic.size()));
        const auto header = recordOf(records);
        if (header.opcode != op::kHeader) throw WrongRecord{"a recording begins with its header"};
        fIsOurs = Decoder(header.content).text() == kProfile;
        fBegin = begin.size() - records.rest().size();
    } catch (const WrongRecord& wrong) {
        fail(kMagic.size(), wrong.what);
    }
}

bool Reader::readIndex() {
    const std::uint64_t size = fSource.size();
    if (size < fBegin + kFooterSize + kMagic.size()) return false;
    const std::uint64_t footer = size - kMagic.size() - kFooterSize;
    const auto end = fSource.read(footer, kFooterSize + kMagic.size());
    if (!end.ends_with(kMagic)) return false;
    const auto damaged = [&](const std::string& what) {
        fDamage.emplace(fSource.name(), footer, what);
        return false;
    };
    Decoder fields(end);
    const auto opcode = fields.number<std::uint8_t>();
    if (opcode != op::kFooter || fields.number<std::uint64_t>() != kFooterSize - kRecordHead) {
        return damaged("the footer is damaged");
    }
    const auto begin = fields.number<std::uint64_t>();
    static_cast<void>(fields.number<std::uint64_t>());
    const auto crc = fields.number<std::uint32_t>();
    if (begin == 0) return false;
    if (begin < fBegin || begin > footer) return damaged("the footer is damaged");
    if (footer - begin > fLimits.index) return damaged("the index is too large");
    const auto summary = fSource.read(begin, footer - begin);
    const std::string_view covered(end.data(), kFooterSize - sizeof crc);
    if (crcOf(covered, crcOf(summary)) != crc) return damaged(mismatch("index", crc));
    try {
        readSummary(summary);
        return true;
    } catch (const WrongRecord& wrong) {
        fSchemas.clear();
        fChannels.clear();
        fChunks.clear();
        fDefined = 0;
        fIndexed = 0;
        return damaged(wrong.what);
    }
}

void Reader::readSummary(std::string_view summary) {
    Decoder records(summary);
    while (!records.isAtEnd()) {
        const auto [opcode, content] = recordOf(records);
        if (opcode == op::kSchema || opcode == op::kChannel) define(opcode, content);
        if (opcode != op::kChunkIndex) continue;
        if (fChunks.size() == fLimits.chunks) throw WrongRecord{"there are too many chunks"};
        const auto& info = fChunks.emplace_back(infoOf(content));
        const std::uint64_t size = fSource.size();
        if (info.offset < fBegin || info.offset > size || info.length > size - info.offset ||
            info.length < kChunkHead) {
            throw WrongRecord{"the index names a chunk that is not there"};
        }
        countIndexes(info);
    }
    std::ranges::sort(fChunks, {}, &ChunkInfo::offset);
    for (std::size_t i = 1; i < fChunks.size(); ++i) {
        const auto& before = fChunks[i - 1];
        if (fChunks[i].offset < before.offset + before.length) {
            throw WrongRecord{"the index names chunks that lie in each other"};
        }
    }
}

void Reader::countIndexes(const ChunkInfo& info) {
    constexpr std::size_t kNode = 64;
    fIndexed += info.indexes.size() * kNode;
    if (fIndexed > fLimits.index) throw WrongRecord{"there are too many message indexes"};
}

void Reader::define(std::uint8_t opcode, std::string_view content) {
    fDefined += content.size();
    if (fDefined > fLimits.index) throw WrongRecord{"there is too much about channels"};
    Decoder fields(content);
    const auto id = fields.number<std::uint16_t>();
    if (opcode == op::kSchema) {
        Schema schema;
        schema.name = fields.text();
        schema.encoding = fields.text();
        schema.data = fields.text();
        // Repeated ones are the same.
        fSchemas.try_emplace(id, std::make_shared<const Schema>(std::move(schema)));
        return;
    }
    const auto schema = fields.number<std::uint16_t>();
    if (schema != 0 && !fSchemas.contains(schema)) throw WrongRecord{"a schema is not there"};
    Channel channel{std::string(fields.text()), {}, schema == 0 ? nullptr : fSchemas[schema]};
    channel.encoding = fields.text();
    fChannels.try_emplace(id, std::move(channel));
}

void Reader::scan() {
    std::optional<std::uint64_t> offset = fBegin;
    try {
        while (offset) offset = scanRecord(*offset);
    } catch (const FormatError& damage) {
        // What comes first in the file is the reason for what comes later.
        fDamage = damage;
    }
}

std::optional<std::uint64_t> Reader::scanRecord(std::uint64_t offset) {
    const std::uint64_t left = fSource.size() - offset;
    if (left < kRecordHead) fail(offset, "the file ends before its time");
    const auto head = fSource.read(offset, kRecordHead);
    Decoder fields(head);
    const auto opcode = fields.number<std::uint8_t>();
    const auto content = fields.number<std::uint64_t>();
    if (content > left - kRecordHead) fail(offset, "the file ends within a record");
    const std::uint64_t length = kRecordHead + content;
    switch (opcode) {
        case op::kChunk:
            scanChunk(offset, length);
            break;
        case op::kDataEnd:
            // What follows is the index, which was not good.
            if (!fDamage) fDamage.emplace(fSource.name(), offset, "there is no index");
            return {};
        case 0:
        case op::kHeader:
        case op::kFooter:
        case op::kSchema:
        case op::kChannel:
        case op::kMessage:
            fail(offset, "a record stands where it cannot be checked");
        default:
            break;
    }
    return offset + length;
}

void Reader::scanChunk(std::uint64_t offset, std::uint64_t length) {
    if (fChunks.size() == fLimits.chunks) fail(offset, "there are too many chunks");
    ChunkInfo info;
    try {
        info = headOf(fSource, offset, length).info;
    } catch (const WrongRecord& wrong) {
        fail(offset, wrong.what);
    }
    const std::string content = records(info);
    try {
        Decoder rest(content);
        while (!rest.isAtEnd()) {
            const auto record = recordOf(rest);
            if (record.opcode == op::kMessage) {
                const auto message = messageOf(record.content);
                if (!fits(message, info)) throw WrongRecord{"a message does not fit its chunk"};
                if (fSequences[message.channel]++ != message.sequence && fIsOurs) {
                    throw WrongRecord{"messages are missing before this chunk"};
                }
                info.indexes[message.channel] = 0;
            } else if (record.opcode == op::kSchema || record.opcode == op::kChannel) {
                define(record.opcode, record.content);
            }
        }
        countIndexes(info);
    } catch (const WrongRecord& wrong) {
        fail(offset, wrong.what);
    }
    fChunks.push_back(std::move(info));
}

std::string Reader::records(const ChunkInfo& info) const {
    ChunkHead head;
    try {
        head = headOf(fSource, info.offset, info.length);
    } catch (const WrongRecord& wrong) {
        fail(info.offset, wrong.what);
    }
    if (!isSame(head.info, info)) fail(info.offset, "the chunk is not as the index says");
    if (info.size > fLimits.chunk || info.compressedSize > fLimits.chunk) {
        fail(info.offset, "the chunk is larger than " + std::to_string(fLimits.chunk) + " bytes");
    }
    std::string body = fSource.read(head.body, info.compressedSize);
    if (info.compression == kZstd) {
        std::string unpacked;
        if (!decompress(body, info.size, unpacked)) {
            fail(info.offset, "the chunk cannot be decompressed");
        }
        body = std::move(unpacked);
    } else if (!info.compression.empty()) {
        fail(info.offset, "the chunk's compression is none that is known here");
    }
    if (body.size() != info.size || crcOf(body) != head.crc) {
        fail(info.offset, mismatch("chunk", head.crc));
    }
    return body;
}

bool Reader::fits(const Message& message, const ChunkInfo& info) const {
    return message.time >= info.first && message.time <= info.last &&
           fChannels.contains(message.channel);
}

Chunk Reader::read(std::size_t chunk) const {
    KIROWEB_REQUIRE(chunk < fChunks.size());
    const ChunkInfo& info = fChunks[chunk];
    Chunk found(records(info));
    try {
        // All of it, before the first message is anybody's.
        while (const auto message = found.next()) {
            if (!fits(*message, info)) throw WrongRecord{"a message does not fit its chunk"};
        }
    } catch (const WrongRecord& wrong) {
        fail(info.offset, wrong.what);
    }
    found.rewind();
    return found;
}

}  // namespace kirorecording
