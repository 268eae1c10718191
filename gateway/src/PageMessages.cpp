#include "PageMessages.hpp"

#include <boost/json.hpp>
#include <stdexcept>

#include "kirogateway/Version.hpp"

namespace kirogateway::wire {
namespace {

namespace json = boost::json;

constexpr std::size_t kMaxDepth = 8;
constexpr std::size_t kMaxClient = 256;

/// Reads members of one message; each error names the member.
class Members {
  public:
    explicit Members(const json::value& value) : fObject(value.if_object()) {
        if (fObject == nullptr) throw std::runtime_error("not an object");
    }

    [[nodiscard]] std::string text(const char* key) const {
        const auto* value = find(key);
        if (value == nullptr || !value->is_string()) fail(key);
        return std::string(value->get_string());
    }
    [[nodiscard]] std::string textOr(const char* key, std::string fallback) const {
        return find(key) == nullptr ? std::move(fallback) : text(key);
    }
    [[nodiscard]] std::uint64_t number(const char* key) const {
        const auto* value = find(key);
        if (value == nullptr) fail(key);
        return numberIn(*value, key);
    }
    [[nodiscard]] std::vector<std::uint64_t> numbers(const char* key) const {
        const auto* value = find(key);
        if (value == nullptr || !value->is_array()) fail(key);
        std::vector<std::uint64_t> all;
        for (const auto& element : value->get_array()) all.push_back(numberIn(element, key));
        return all;
    }
    [[nodiscard]] bool flag(const char* key) const {
        const auto* value = find(key);
        if (value == nullptr || !value->is_bool()) fail(key);
        return value->get_bool();
    }
    [[nodiscard]] bool flagOr(const char* key, bool fallback) const {
        return find(key) == nullptr ? fallback : flag(key);
    }
    [[nodiscard]] std::vector<std::string> texts(const char* key) const {
        const auto* value = find(key);
        if (value == nullptr || !value->is_array()) fail(key);
        std::vector<std::string> all;
        for (const auto& element : value->get_array()) {
            if (!element.is_string()) fail(key);
            all.emplace_back(element.get_string());
        }
        return all;
    }
    [[nodiscard]] std::string scalar(const char* key) const {
        const auto* value = find(key);
        if (value == nullptr || !(value->is_string() || value->is_number())) fail(key);
        return json::serialize(*value);
    }
    [[nodiscard]] bool has(const char* key) const { return find(key) != nullptr; }
    [[nodiscard]] const json::value* find(const char* key) const {
        return fObject->if_contains(key);
    }

  private:
    static std::uint64_t numberIn(const json::value& value, const char* key) {
        json::error_code error;
        const auto number = value.to_number<std::uint64_t>(error);
        if (error) fail(key);
        return number;
    }
    [[noreturn]] static void fail(const char* key) {
        throw std::runtime_error(std::string("member \"") + key + "\"");
    }

    const json::object* fObject;
};

Hello readHello(const Members& members) {
    Hello hello;
    hello.version = members.number("version");
    hello.client = members.textOr("client", {});
    if (hello.client.size() > kMaxClient) throw std::runtime_error("member \"client\"");
    if (members.has("subscribe")) hello.subscribe = members.texts("subscribe");
    hello.resume = members.flagOr("resume", true);
    hello.view = members.textOr("view", {});
    if (!hello.view.empty()) hello.last = members.number("last");
    if (members.has("refused")) hello.refused = members.numbers("refused");
    if (const auto* limits = members.find("limits")) {
        const Members of(*limits);
        if (of.has("block")) hello.maxBlock = of.number("block");
    }
    return hello;
}

PageMessage readMessage(const json::value& value) {
    const Members members(value);
    const auto what = members.text("t");
    if (what == "publish") return Publish{members.text("channel"), members.text("text")};
    if (what == "ack") return Ack{members.number("last")};
    if (what == "block") {
        return BlockAnswer{members.number("transfer"), members.flag("ok"),
                           members.textOr("reason", {})};
    }
    if (what == "subscribe") return Subscribe{members.texts("channels")};
    if (what == "unsubscribe") return Unsubscribe{members.texts("channels")};
    if (what == "channel") return ChannelName{members.number("number"), members.text("name")};
    if (what == "echo") return Echo{members.scalar("id")};
    if (what == "hello") return readHello(members);
    return Unknown{what};
}

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
            {"queueMilliseconds", limits.queue.count()},
            {"ackBytes", ackBytes},
            {"ackMilliseconds", 200},
            {"blockMilliseconds", limits.block.count()},
            {"returnMilliseconds", limits.comeback.count()}};
}

}  // namespace

std::vector<PageMessage> readFrame(std::string_view text) {
    json::parse_options options;
    options.max_depth = kMaxDepth;
    json::error_code error;
    const auto value = json::parse(text, error, {}, options);
    if (error) throw std::runtime_error("not JSON");
    std::vector<PageMessage> messages;
    if (const auto* array = value.if_array()) {
        for (const auto& element : *array) messages.push_back(readMessage(element));
    } else {
        messages.push_back(readMessage(value));
    }
    return messages;
}

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
    return json::serialize(hello);
}

std::string channelText(std::uint64_t number, std::string_view name) {
    return json::serialize(json::object{{"t", "channel"}, {"number", number}, {"name", name}});
}

std::string withdrawnText(std::uint32_t transfer, std::uint64_t number) {
    json::object text{{"t", "withdrawn"}, {"transfer", transfer}};
    if (number != 0) text["number"] = number;
    return json::serialize(text);
}

std::string refusedText(std::string_view what, std::string_view channel, std::string_view reason) {
    return json::serialize(
        json::object{{"t", "refused"}, {"what", what}, {"channel", channel}, {"reason", reason}});
}

std::string echoText(const std::string& id) { return R"({"t":"echo","id":)" + id + "}"; }

std::string announcementText(ViewKind kind, std::uint64_t count, std::string_view client) {
    return json::serialize(
        json::object{{"kind", nameOf(kind)}, {"view", count}, {"client", client}});
}

}  // namespace kirogateway::wire
