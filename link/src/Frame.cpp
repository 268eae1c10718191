#include "Frame.hpp"

#include <algorithm>
#include <array>
#include <type_traits>

#include "Bytes.hpp"
#include "OwnPage.hpp"
#include "TextEncoding.hpp"
#include "checked/Require.hpp"
#include "text/Hex.hpp"

namespace kirolink {
namespace {

using namespace frame;
using kirogateway::kRecordSeparator;
using kirogateway::kUnitSeparator;

constexpr std::string_view kMagic = "KL\x01";  // the last byte is the version
constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kMaxNames = 4096;  // in a list of channels
constexpr std::size_t kHashSize = 64;

// --- Base64 -------------------------------------------------------------------------------------

/// The value of a character, 64 for one that has none.
unsigned valueOf(char c) noexcept {
    if (c >= 'A' && c <= 'Z') return static_cast<unsigned>(c - 'A');
    if (c >= 'a' && c <= 'z') return static_cast<unsigned>(c - 'a' + 26);
    if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0' + 52);
    return c == '+' ? 62 : c == '/' ? 63 : 64;
}

/// Whether that is Base64 in its one right form; what it stands for goes `into`, unless null.
bool decodeBase64(std::string_view text, std::string* into) {
    if (text.size() % 4 != 0) return false;
    for (std::size_t at = 0; at < text.size(); at += 4) {
        const bool isLast = at + 4 == text.size();
        std::size_t count = 4;
        while (isLast && count > 2 && text[at + count - 1] == '=') --count;
        unsigned bits = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const unsigned value = i < count ? valueOf(text[at + i]) : 0;
            if (value == 64) return false;
            bits = bits << 6U | value;
        }
        // What padding leaves over has to be nothing.
        if ((bits & ((1U << (8 * (4 - count))) - 1)) != 0) return false;
        if (into == nullptr) continue;
        for (std::size_t i = 0; i + 1 < count; ++i) {
            *into += static_cast<char>(bits >> (16 - 8 * i) & 0xffU);
        }
    }
    return true;
}

// --- Reading ------------------------------------------------------------------------------------

bool readRecord(std::string_view bytes, Texts& texts) {
    const auto unit = bytes.find(kUnitSeparator);
    if (unit == std::string_view::npos) return false;
    Texts::Record record{bytes.substr(0, unit), bytes.substr(unit + 1), false};
    if (record.channel.empty() && !texts.records.empty()) {
        record.channel = texts.records.back().channel;
    } else if (!canBeNamed(record.channel)) {
        return false;
    }
    record.isBase64 = record.text.starts_with(kUnitSeparator);
    if (record.isBase64) record.text.remove_prefix(1);
    const bool isRight =
        record.isBase64 ? decodeBase64(record.text, nullptr) : kirogateway::isPlain(record.text);
    if (!isRight) return false;
    texts.records.push_back(record);
    return true;
}

void read(Reader& reader, Texts& texts) {
    auto left = reader.rest(kMaxFrame);
    reader.require(left.starts_with(kRecordSeparator));
    while (reader.isGood() && !left.empty()) {
        left.remove_prefix(1);  // the separator, which is where the last one ended
        const auto end = std::min(left.find(kRecordSeparator), left.size());
        reader.require(readRecord(left.substr(0, end), texts));
        left.remove_prefix(end);
    }
}

void read(Reader& reader, Piece& piece) {
    const auto kind = reader.number(1);
    reader.require(kind <= 1);
    piece.isBlock = kind == 1;
    piece.total = reader.count();
    piece.offset = reader.count();
    piece.channel = reader.text(2, kMaxChannel);
    piece.bytes = reader.rest(kPieceSize);
    reader.require(canBeNamed(piece.channel));
    reader.require(piece.offset + piece.bytes.size() <= piece.total);
    // Only a whole that is empty has a part that is.
    reader.require(!piece.bytes.empty() || piece.total == 0);
}

void read(Reader& reader, Announce& announce) {
    const auto kind = reader.number(1);
    reader.require(kind <= 1);
    announce.kind = kind == 0 ? GatewayEnd::ViewKind::kNew : GatewayEnd::ViewKind::kReturn;
    announce.view = reader.count();
    announce.client = reader.rest(kMaxClient);
}

void read(Reader& reader, Outcome& outcome) {
    outcome.block = reader.count();
    const auto what = reader.number(1);
    reader.require(what <= static_cast<unsigned>(BlockOutcome::kNobody));
    outcome.outcome = static_cast<BlockOutcome>(what);
}

void read(Reader& reader, Pages& pages) { pages.count = reader.count(); }

std::string_view readAddress(Reader& reader) {
    const auto address = reader.rest(kMaxAddress);
    // It is shown to people, in a terminal among other places.
    reader.require(address.starts_with("http://") || address.starts_with("https://"));
    reader.require(std::ranges::all_of(address, [](char c) { return c > ' ' && c < '\x7f'; }));
    return address;
}

void read(Reader& reader, Hello& hello) { hello.address = readAddress(reader); }
void read(Reader& reader, Offer& offer) { offer.address = readAddress(reader); }

void read(Reader& reader, Presence& presence) {
    presence.has = reader.count();
    presence.sentAt = reader.time();
    presence.clockOffset = reader.time();
    presence.clockUncertainty = reader.count();
}

std::vector<std::string> readNames(Reader& reader) {
    std::vector<std::string> names;
    auto count = reader.number(2);
    reader.require(count <= kMaxNames);
    for (; reader.isGood() && count > 0; --count) names.emplace_back(reader.text(2, kMaxChannel));
    return names;
}

std::string readHash(Reader& reader) {
    std::string hash(reader.take(kHashSize));
    reader.require(text::isHex(hash, kHashSize));
    return hash;
}

void read(Reader& reader, Welcome& welcome) {
    auto& session = welcome.session;
    session.views = reader.count();
    session.pieceSize = reader.count();
    session.tokenHash = readHash(reader);
    session.configuration = reader.text(4, kMaxFrame);
    session.mayPublish = readNames(reader);
    session.maySubscribe = readNames(reader);
    session.blockChannels = readNames(reader);
    auto lanes = reader.number(2);
    reader.require(lanes <= kMaxLanes);
    for (; reader.isGood() && lanes > 0; --lanes) session.lanes.push_back(readNames(reader));
    if (reader.isAtEnd()) return;
    session.page.files = reader.number(4);
    session.page.size = reader.count();
    session.page.hash = readHash(reader);
    reader.require(session.page.files > 0 && session.page.files <= kMostFiles);
    reader.require(session.page.size > 0);
}

void read(Reader& reader, Answer& answer) {
    answer.echo = reader.time();
    answer.receivedAt = reader.time();
    answer.sentAt = reader.time();
}

void read(Reader& reader, Dropped& dropped) { dropped.reason = reader.rest(kMaxReason); }

void read(Reader& reader, Ask& ask) {
    auto count = reader.number(1);
    reader.require(count <= kMaxRanges);
    std::uint64_t before = 0;
    for (; reader.isGood() && count > 0; --count) {
        const auto first = reader.count();
        const auto last = reader.count();
        reader.require(before < first && first <= last);
        ask.ranges.push_back({first, last});
        before = last + 1;
    }
}

void read(Reader& reader, Beat& beat) {
    // Without a page it is as short as it can be.
    beat.hasPage = !reader.isAtEnd();
    if (beat.hasPage) reader.require(reader.number(1) == 1);
}

void read(Reader& reader, Part& part) {
    part.bytes = reader.rest(kPagePart);
    reader.require(!part.bytes.empty());
}

template <typename Nothing>
void read(Reader& /*reader*/, Nothing& /*body*/) {
    static_assert(std::is_empty_v<Nothing>);
}

/// Makes the alternative of `Body` that has this index.
template <std::size_t Index = 0>
bool emplace(std::size_t index, Body& body) {
    if constexpr (Index < std::variant_size_v<Body>) {
        if (index != Index) return emplace<Index + 1>(index, body);
        body.emplace<Index>();
        return true;
    }
    return false;
}

// --- Writing ------------------------------------------------------------------------------------

void putTime(std::string& to, std::int64_t time) { put(to, static_cast<std::uint64_t>(time), 8); }
void putNames(std::string& to, const std::vector<std::string>& names) {
    put(to, names.size(), 2);
    for (const auto& name : names) putText(to, name, 2);
}

void putRecord(std::string& to, std::string_view before, std::string_view channel,
               std::string_view text) {
    to += kRecordSeparator;
    // The name of the first one is written, also when it is empty.
    if (channel != before) to += channel;
    to += kUnitSeparator;
    if (kirogateway::isPlain(text)) {
        to += text;
    } else {
        to += kUnitSeparator;
        to += kirogateway::encodeBase64(text);
    }
}

void write(std::string& to, const Texts& texts) {
    std::string space;
    std::string_view before;
    for (const auto& record : texts.records) {
        putRecord(to, before, record.channel, textOf(record, space));
        before = record.channel;
    }
}
void write(std::string& to, const Piece& piece) {
    put(to, piece.isBlock ? 1 : 0, 1);
    put(to, piece.total, 8);
    put(to, piece.offset, 8);
    putText(to, piece.channel, 2);
    to += piece.bytes;
}
void write(std::string& to, const Announce& announce) {
    put(to, announce.kind == GatewayEnd::ViewKind::kNew ? 0 : 1, 1);
    put(to, announce.view, 8);
    to += announce.client;
}
void write(std::string& to, const Outcome& outcome) {
    put(to, outcome.block, 8);
    put(to, static_cast<std::uint64_t>(outcome.outcome), 1);
}
void write(std::string& to, const Pages& pages) { put(to, pages.count, 8); }
void write(std::string& to, const Hello& hello) { to += hello.address; }
void write(std::string& to, const Offer& offer) { to += offer.address; }
void write(std::string& to, const Presence& presence) {
    put(to, presence.has, 8);
    putTime(to, presence.sentAt);
    putTime(to, presence.clockOffset);
    put(to, presence.clockUncertainty, 8);
}
void write(std::string& to, const Welcome& welcome) {
    const auto& session = welcome.session;
    KIROWEB_REQUIRE(session.tokenHash.size() == kHashSize);
    put(to, session.views, 8);
    put(to, session.pieceSize, 8);
    to += session.tokenHash;
    putText(to, session.configuration, 4);
    putNames(to, session.mayPublish);
    putNames(to, session.maySubscribe);
    putNames(to, session.blockChannels);
    put(to, session.lanes.size(), 2);
    for (const auto& lane : session.lanes) putNames(to, lane);
    if (!session.page.isThere()) return;
    put(to, session.page.files, 4);
    put(to, session.page.size, 8);
    to += session.page.hash;
}
void write(std::string& to, const Beat& beat) {
    if (beat.hasPage) put(to, 1, 1);
}
void write(std::string& to, const Part& part) { to += part.bytes; }
void write(std::string& to, const Answer& answer) {
    putTime(to, answer.echo);
    putTime(to, answer.receivedAt);
    putTime(to, answer.sentAt);
}
void write(std::string& to, const Dropped& dropped) { to += dropped.reason; }
void write(std::string& to, const Ask& ask) {
    KIROWEB_REQUIRE(ask.ranges.size() <= kMaxRanges);
    put(to, ask.ranges.size(), 1);
    for (const auto& range : ask.ranges) {
        put(to, range.first, 8);
        put(to, range.last, 8);
    }
}
template <typename Nothing>
void write(std::string& /*to*/, const Nothing& /*body*/) {
    static_assert(std::is_empty_v<Nothing>);
}

void putHeader(std::string& to, std::size_t index, const Header& header) {
    to += kMagic;
    put(to, index + 1, 1);
    put(to, header.epoch, 8);
    put(to, header.incarnation, 8);
    put(to, header.number, 8);
}

constexpr std::size_t kIndexOfTexts = 2;
static_assert(std::is_same_v<std::variant_alternative_t<kIndexOfTexts, Body>, Texts>);

}  // namespace

std::optional<Frame> readFrame(std::string_view bytes) {
    if (bytes.size() > kMaxFrame || !bytes.starts_with(kMagic)) return {};
    Reader reader(bytes.substr(kMagic.size()));
    const auto type = reader.number(1);
    Frame frame;
    frame.header.epoch = reader.number(8);
    frame.header.incarnation = reader.number(8);
    frame.header.number = reader.count();
    if (!reader.isGood() || type == 0 || !emplace(type - 1, frame.body)) return {};
    std::visit([&reader](auto& body) { read(reader, body); }, frame.body);
    if (!reader.isAtEnd()) return {};
    return frame;
}

std::string writeFrame(const Header& header, const Body& body) {
    std::string bytes;
    if (const auto* piece = std::get_if<Piece>(&body)) {
        bytes.reserve(kHeaderSize + 19 + piece->channel.size() + piece->bytes.size());
    }
    putHeader(bytes, body.index(), header);
    std::visit([&bytes](const auto& what) { write(bytes, what); }, body);
    KIROWEB_REQUIRE(bytes.size() <= kMaxFrame);
    return bytes;
}

bool canBeSent(const Description& session) noexcept {
    constexpr std::size_t kRest = 1024;  // of the frame
    std::size_t size = kRest + session.configuration.size();
    const auto add = [&size](const std::vector<std::string>& names) {
        size += 2;
        for (const auto& name : names) size += 2 + name.size();
        return names.size() <= kMaxNames && std::ranges::all_of(names, [](const auto& name) {
                   return name.size() <= kMaxChannel;
               });
    };
    const bool isShort = add(session.mayPublish) && add(session.maySubscribe) &&
                         add(session.blockChannels) && session.lanes.size() <= kMaxLanes &&
                         std::ranges::all_of(session.lanes, add);
    return isShort && size <= kMaxFrame && session.pieceSize < kEndOfNumbers;
}

std::string_view textOf(const Texts::Record& record, std::string& space) {
    if (!record.isBase64) return record.text;
    space.clear();
    decodeBase64(record.text, &space);
    return space;
}

bool canBeNamed(std::string_view channel) noexcept {
    return channel.size() <= kMaxChannel && kirogateway::isPlain(channel);
}

// --- Batches ------------------------------------------------------------------------------------

bool BatchWriter::fits(std::string_view channel, std::string_view text) const noexcept {
    if (isEmpty()) return true;
    // Behind another record an empty name would mean that one's channel.
    if (channel.empty()) return false;
    return fBytes.size() + channel.size() + text.size() <= kBatchSize;
}

void BatchWriter::add(std::string_view channel, std::string_view text) {
    const auto before = fBytes.size();
    try {
        if (fBytes.empty()) putHeader(fBytes, kIndexOfTexts, {});
        putRecord(fBytes, before == 0 ? std::string_view() : fLastChannel, channel, text);
        if (channel != fLastChannel) fLastChannel = channel;
    } catch (...) {
        fBytes.resize(before);
        throw;
    }
}

std::string& BatchWriter::frame(const Header& header) {
    KIROWEB_REQUIRE(!isEmpty());
    std::string head;
    putHeader(head, kIndexOfTexts, header);
    std::ranges::copy(head, fBytes.begin());
    return fBytes;
}

void BatchWriter::clear() noexcept {
    fBytes.clear();
    fLastChannel.clear();
}

// --- Pieces -------------------------------------------------------------------------------------

Assembly::Result Assembly::add(const Piece& piece) {
    constexpr std::uint64_t kReservedAtOnce = std::uint64_t{16} << 20U;
    const bool isFirst = piece.offset == 0;
    const bool follows = piece.isBlock == fIsBlock && piece.channel == fChannel &&
                         piece.total == fTotal && piece.offset == fBytes.size();
    if (isFirst ? piece.total > fMost : !follows) {
        clear();
        fTotal = 0;
        return Result::kBad;
    }
    if (isFirst) {
        fIsBlock = piece.isBlock;
        fChannel = piece.channel;
        fTotal = piece.total;
        fBytes.clear();
        // Not all of what a peer may only claim.
        fBytes.reserve(std::min(fTotal, kReservedAtOnce));
    }
    fBytes += piece.bytes;
    return piece.isLast() ? Result::kWhole : Result::kPart;
}

}  // namespace kirolink
