#include "PageMessages.hpp"

#include <algorithm>
#include <boost/json.hpp>
#include <charconv>

#include "kirogateway/Version.hpp"

namespace kirogateway::wire {
namespace {

namespace json = boost::json;

json::array arrayOf(const std::vector<std::string>& texts) {
    json::array array;
    for (const auto& text : texts) array.emplace_back(text);
    return array;
}

json::object limitsOf(const Limits& limits) {
    // Half of what the gateway keeps at most, and no more than a page reads in one go.
    const std::size_t ackBytes = std::min<std::size_t>(limits.queueSize / 2, 256UL * 1024);
    return {{"message", limits.messageSize},
            {"queue", limits.queueSize},
            {"frame", std::max(limits.pieceSize + BlockHeader::kSize, limits.batchSize)},
            {"blocksUnderWay", limits.blocksUnderWay},
            {"bytesUnderWay", limits.bytesUnderWay},
            {"names", limits.namesPerFrame},
            {"queueMilliseconds", limits.queue.count()},
            {"ackBytes", ackBytes},
            {"ackMilliseconds", 200},
            {"blockMilliseconds", limits.block.count()},
            {"returnMilliseconds", limits.comeback.count()}};
}

}  // namespace

void BlockHeader::write(char* to) const noexcept {
    to[0] = static_cast<char>(kBlock);
    to[1] = static_cast<char>(isLast ? kLastPiece : 0);
    const auto put = [to](std::size_t at, std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            to[at + i] = static_cast<char>(value >> (8 * i) & 0xffU);
        }
    };
    put(2, channel, 2);
    put(4, transfer, 4);
    put(8, number, 8);
}

std::optional<BlockHeader> BlockHeader::read(std::string_view frame) noexcept {
    if (frame.size() < kSize || static_cast<unsigned char>(frame[0]) != kBlock) return {};
    const auto get = [frame](std::size_t at, std::size_t size) {
        std::uint64_t value = 0;
        for (std::size_t i = size; i-- > 0;) {
            value = value << 8U | static_cast<unsigned char>(frame[at + i]);
        }
        return value;
    };
    BlockHeader header;
    header.isLast = (static_cast<unsigned char>(frame[1]) & kLastPiece) != 0;
    header.channel = static_cast<std::uint16_t>(get(2, 2));
    header.transfer = static_cast<std::uint32_t>(get(4, 4));
    header.number = get(8, 8);
    return header;
}

std::string_view nameOf(ViewKind kind) noexcept {
    switch (kind) {
        case ViewKind::kFirst:
            return "first";
        case ViewKind::kFurther:
            return "further";
        case ViewKind::kReturn:
            return "return";
    }
    return "";
}

std::string helloText(const Welcome& welcome, const Options& options) {
    json::object hello{{"t", "hello"},
                       {"version", 1},
                       {"server", "kiroweb " KIROGATEWAY_VERSION},
                       {"view", welcome.view},
                       {"kind", nameOf(welcome.kind)},
                       {"next", welcome.next},
                       {"blockChannels", arrayOf(welcome.blockChannels)},
                       {"subscribed", arrayOf(welcome.subscribed)},
                       {"refused", arrayOf(welcome.refused)},
                       {"capabilities", {"return", "pieces", "echo"}},
                       {"limits", limitsOf(options.limits)},
                       {"configuration", json::parse(options.configuration)}};
    if (!welcome.ended.empty()) hello["ended"] = welcome.ended;
    if (!welcome.others.empty()) hello["gateways"] = arrayOf(welcome.others);
    return json::serialize(hello);
}

std::string channelText(std::uint64_t number, std::string_view name) {
    return json::serialize(json::object{{"t", "channel"}, {"number", number}, {"name", name}});
}

WithdrawnText::WithdrawnText(std::uint32_t transfer, std::uint64_t number) noexcept {
    put(R"({"t":"withdrawn","transfer":)");
    put(transfer);
    if (number != 0) {
        put(R"(,"number":)");
        put(number);
    }
    put("}");
}

void WithdrawnText::put(std::string_view text) noexcept {
    std::ranges::copy(text, fText.data() + fSize);
    fSize += text.size();
}

void WithdrawnText::put(std::uint64_t number) noexcept {
    auto* const begin = fText.data() + fSize;
    fSize += static_cast<std::size_t>(
        std::to_chars(begin, fText.data() + fText.size(), number).ptr - begin);
}

std::string refusedText(std::string_view what, std::string_view channel, std::string_view reason) {
    return json::serialize(
        json::object{{"t", "refused"}, {"what", what}, {"channel", channel}, {"reason", reason}});
}

std::string echoText(const std::string& id) { return R"({"t":"echo","id":)" + id + "}"; }

std::string echoText(const std::string& id, const Clocks& clocks) {
    auto text = echoText(id);
    text.pop_back();
    text += R"(,"time":)" + std::to_string(clocks.wall.count());
    if (clocks.isEngineKnown) {
        text += R"(,"engineAhead":)" + std::to_string(clocks.engineAhead.count()) +
                R"(,"uncertainty":)" + std::to_string(clocks.uncertainty.count());
    }
    return text + "}";
}

std::string quoted(std::string_view text) { return json::serialize(json::string(text)); }

std::string announcementText(ViewKind kind, std::uint64_t count, std::string_view client) {
    return json::serialize(
        json::object{{"kind", nameOf(kind)}, {"view", count}, {"client", client}});
}

}  // namespace kirogateway::wire
