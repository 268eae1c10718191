#include "kirorecording/Writer.hpp"

#include <algorithm>
#include <limits>

#include "Encoder.hpp"
#include "Format.hpp"
#include "checked/Require.hpp"

namespace kirorecording {

namespace {

constexpr std::size_t kMostChunkSize = std::size_t{4} << 20U;
constexpr std::size_t kIndexEntry = 2 * sizeof(std::uint64_t);

void encodeSchema(std::string& out, std::uint16_t id, const Schema& schema) {
    Encoder(out, op::kSchema).number(id).text(schema.name).text(schema.encoding).text(schema.data);
}

/// The schema has the channel's number; 0 stands for none.
void encodeChannel(std::string& out, std::uint16_t id, const Channel& channel) {
    Encoder(out, op::kChannel)
        .number(id)
        .number(channel.schema == nullptr ? std::uint16_t{0} : id)
        .text(channel.topic)
        .text(channel.encoding)
        .length(0);  // no metadata
}

void encodeInfo(std::string& out, const ChunkInfo& info) {
    Encoder record(out, op::kChunkIndex);
    record.number(info.first).number(info.last).number(info.offset).number(info.length);
    record.length(info.indexes.size() * (sizeof(std::uint16_t) + sizeof(std::uint64_t)));
    for (const auto& [channel, offset] : info.indexes) record.number(channel).number(offset);
    record.number(info.indexLength).text(info.compression);
    record.number(info.compressedSize).number(info.size);
}

}  // namespace

Writer::Writer(Sink& sink, WriterOptions options) : fSink(sink), fOptions(options) {
    KIROWEB_REQUIRE(fOptions.chunkSize <= kMostChunkSize);
    std::string head(kMagic);
    Encoder(head, op::kHeader).text(kProfile).text("kirorecording");
    put(head);
    markWhole();
}

void Writer::put(std::string_view bytes) {
    fSink.write(bytes);
    fOffset += bytes.size();
}

std::uint16_t Writer::add(const Channel& channel) {
    fChannels.push_back(channel);
    fSequences.push_back(0);
    const auto id = static_cast<std::uint16_t>(fChannels.size());
    // Within the chunk, whose checksum is over them, too.
    if (channel.schema != nullptr) encodeSchema(fChunk.records, id, *channel.schema);
    encodeChannel(fChunk.records, id, channel);
    return id;
}

void Writer::write(std::uint16_t channel, std::uint64_t time, std::string_view data) {
    KIROWEB_REQUIRE(channel > 0 && channel <= fChannels.size());
    KIROWEB_REQUIRE(data.size() <= kMostBytes);
    if (fChunk.indexes.empty()) fChunk.since = time;
    fChunk.indexes[channel].emplace_back(time, fChunk.records.size());
    // What fills a chunk by itself needs no copy, unless the chunk is compressed as a whole.
    const bool isApart = !fOptions.compresses && data.size() >= fOptions.chunkSize;
    {
        Encoder message(fChunk.records, op::kMessage);
        message.number(channel).number(fSequences[channel - 1U]++).number(time).number(time);
        if (isApart) {
            message.apart(data.size());
        } else {
            message.raw(data);
        }
    }
    if (isApart) {
        endChunk(data);
    } else if (fChunk.records.size() >= fOptions.chunkSize) {
        flush();
    }
}

void Writer::flush() {
    if (!fChunk.records.empty()) endChunk({});
}

void Writer::endChunk(std::string_view rest) {
    const std::string packed = fOptions.compresses ? compressed(fChunk.records) : std::string();
    const std::string_view body = fOptions.compresses ? packed : fChunk.records;
    ChunkInfo info;
    info.first = fChunk.indexes.empty() ? 0 : std::numeric_limits<std::uint64_t>::max();
    for (const auto& [channel, index] : fChunk.indexes) {
        const auto [first, last] = std::ranges::minmax_element(index);
        info.first = std::min(info.first, first->first);
        info.last = std::max(info.last, last->first);
    }
    info.offset = fOffset;
    info.compression = fOptions.compresses ? kZstd : std::string_view();
    info.compressedSize = body.size() + rest.size();
    info.size = fChunk.records.size() + rest.size();
    // What can fail comes before the chunk counts as whole.
    for (const auto& [channel, index] : fChunk.indexes) fMessages.try_emplace(channel, 0);
    std::string head;
    Encoder(head, op::kChunk)
        .number(info.first)
        .number(info.last)
        .number(info.size)
        .number(crcOf(rest, crcOf(fChunk.records)))
        .text(info.compression)
        .number(info.compressedSize);
    // The body does not go through the encoder, which would copy it: the length is set here.
    const std::uint64_t length = head.size() - kRecordHead + info.compressedSize;
    std::memcpy(head.data() + 1, &length, sizeof length);
    put(head);
    put(body);
    if (!rest.empty()) put(rest);
    info.length = fOffset - info.offset;
    putIndexes(info);
    fChunks.push_back(std::move(info));
    for (const auto& [channel, index] : fChunk.indexes) fMessages[channel] += index.size();
    markWhole();
    // Its memory is for the next one, unless a single large message took it.
    if (fChunk.records.capacity() > 4 * fOptions.chunkSize) fChunk.records = {};
    fChunk.records.clear();
    fChunk.indexes.clear();
    fChunk.since = 0;
}

void Writer::putIndexes(ChunkInfo& info) {
    std::string out;
    for (auto& [channel, index] : fChunk.indexes) {
        info.indexes[channel] = fOffset + out.size();
        std::ranges::stable_sort(index);
        Encoder record(out, op::kMessageIndex);
        record.number(channel).length(index.size() * kIndexEntry);
        for (const auto& [time, offset] : index) record.number(time).number(offset);
    }
    info.indexLength = out.size();
    put(out);
}

void Writer::close() {
    flush();
    putEnd();
}

void Writer::closeEarly() {
    const auto toWhole = [this] {
        fSink.truncate(fWhole);
        fOffset = fWhole;
    };
    toWhole();
    try {
        putEnd();
    } catch (...) {
        toWhole();
        throw;
    }
}

void Writer::putEnd() {
    std::string end;
    Encoder(end, op::kDataEnd).number(std::uint32_t{0});
    put(end);
    std::string summary;
    std::string offsets;
    const auto group = [&](std::uint8_t opcode, const std::string& records) {
        if (records.empty()) return;
        Encoder(offsets, op::kSummaryOffset)
            .number(opcode)
            .number(fOffset + summary.size())
            .number(std::uint64_t{records.size()});
        summary += records;
    };
    group(op::kSchema, schemas());
    group(op::kChannel, channels());
    group(op::kStatistics, statistics());
    group(op::kChunkIndex, infos());
    const std::uint64_t offsetsBegin = fOffset + summary.size();
    summary += offsets;
    Encoder(summary, op::kFooter)
        .number(fOffset)
        .number(offsetsBegin)
        .number(std::uint32_t{0});  // the checksum, of what is before it
    const std::size_t covered = summary.size() - sizeof(std::uint32_t);
    const std::uint32_t crc = crcOf({summary.data(), covered});
    std::memcpy(summary.data() + covered, &crc, sizeof crc);
    put(summary += kMagic);
    fSink.close();
}

std::string Writer::schemas() const {
    std::string out;
    for (std::size_t i = 0; i < fChannels.size(); ++i) {
        if (fChannels[i].schema == nullptr) continue;
        encodeSchema(out, static_cast<std::uint16_t>(i + 1), *fChannels[i].schema);
    }
    return out;
}

std::string Writer::channels() const {
    std::string out;
    for (std::size_t i = 0; i < fChannels.size(); ++i) {
        encodeChannel(out, static_cast<std::uint16_t>(i + 1), fChannels[i]);
    }
    return out;
}

std::string Writer::infos() const {
    std::string out;
    for (const auto& info : fChunks) encodeInfo(out, info);
    return out;
}

std::string Writer::statistics() const {
    std::uint64_t all = 0;
    for (const auto& [channel, count] : fMessages) all += count;
    // A chunk of channels only has no times.
    std::uint64_t first = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t last = 0;
    for (const auto& info : fChunks) {
        if (info.indexes.empty()) continue;
        first = std::min(first, info.first);
        last = std::max(last, info.last);
    }
    const auto numSchemas = std::ranges::count_if(
        fChannels, [](const Channel& channel) { return channel.schema != nullptr; });
    std::string out;
    Encoder record(out, op::kStatistics);
    record.number(all)
        .number(static_cast<std::uint16_t>(numSchemas))
        .number(static_cast<std::uint32_t>(fChannels.size()))
        .number(std::uint32_t{0})  // attachments
        .number(std::uint32_t{0})  // metadata
        .number(static_cast<std::uint32_t>(fChunks.size()))
        .number(all == 0 ? 0 : first)
        .number(last)
        .length(fMessages.size() * (sizeof(std::uint16_t) + sizeof(std::uint64_t)));
    for (const auto& [channel, count] : fMessages) record.number(channel).number(count);
    return out;
}

}  // namespace kirorecording
