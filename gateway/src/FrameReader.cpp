#include "FrameReader.hpp"

#include <algorithm>
#include <array>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/parse_options.hpp>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "SurrogateMender.hpp"

namespace kirogateway {
namespace {

namespace json = boost::json;
using json::error_code;

constexpr std::size_t kMaxDepth = 8;
constexpr std::size_t kKeepText = 4096;  // what a reader that waits may hold on to
/// What is longer than anything that is ever used is cut: it is refused for its length anyway.
constexpr std::size_t kCutAt = wire::kMaxChannelName + 1;

enum class Key {
    kChannel,
    kChannels,
    kClient,
    kId,
    kLast,
    kLimits,
    kName,
    kNumber,
    kOk,
    kReason,
    kRefused,
    kResume,
    kSubscribe,
    kT,
    kText,
    kTime,
    kTransfer,
    kVersion,
    kView,
    kUnknown
};
constexpr std::size_t kKeys = static_cast<std::size_t>(Key::kUnknown);
constexpr std::array<const char*, kKeys> kNames{"channel", "channels", "client",    "id",  "last",
                                                "limits",  "name",     "number",    "ok",  "reason",
                                                "refused", "resume",   "subscribe", "t",   "text",
                                                "time",    "transfer", "version",   "view"};

Key keyOf(std::string_view name) {
    const auto found = std::ranges::find(kNames, name);
    return static_cast<Key>(found - kNames.begin());
}

/// The value of one member, of whatever kind it turns out to be.
struct Value {
    enum class Kind { kAbsent, kText, kNumber, kFlag, kList, kObject, kOther };
    Kind kind = Kind::kAbsent;
    bool flag = false;
    std::uint64_t number = 0;
    std::string text;  ///< of a number: as it was written
    std::vector<std::string> texts;
    std::vector<std::uint64_t> numbers;
};
using Kind = Value::Kind;

/// The members of one message; each error names the member.
class Members {
  public:
    Value& operator[](Key key) { return fValues[static_cast<std::size_t>(key)]; }

    void clear() {
        for (auto& value : fValues) {
            value.kind = Kind::kAbsent;
            value.texts.clear();
            value.numbers.clear();
            if (value.text.capacity() > kKeepText) value.text = {};
            value.text.clear();
        }
        maxBlock = kNoLimit;
        isMaxBlockWrong = false;
    }

    bool has(Key key) { return (*this)[key].kind != Kind::kAbsent; }
    std::string text(Key key) { return std::move(need(key, Kind::kText).text); }
    std::string textOr(Key key) { return has(key) ? text(key) : std::string(); }
    std::uint64_t number(Key key) { return need(key, Kind::kNumber).number; }
    bool flag(Key key) { return need(key, Kind::kFlag).flag; }
    std::vector<std::string> texts(Key key) {
        auto& value = (*this)[key];
        // An array without elements is of either kind.
        if (value.kind != Kind::kList || !value.numbers.empty()) fail(key);
        return std::move(value.texts);
    }
    std::vector<std::uint64_t> numbers(Key key) {
        auto& value = (*this)[key];
        if (value.kind != Kind::kList || !value.texts.empty()) fail(key);
        return std::move(value.numbers);
    }
    [[noreturn]] static void fail(Key key) {
        const auto* name = kNames[static_cast<std::size_t>(key)];
        throw wire::BadMessage(std::string("member \"") + name + "\"");
    }

    static constexpr auto kNoLimit = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t maxBlock = kNoLimit;  ///< "block" of "limits"
    bool isMaxBlockWrong = false;

  private:
    Value& need(Key key, Kind kind) {
        auto& value = (*this)[key];
        if (value.kind != kind) fail(key);
        return value;
    }

    std::array<Value, kKeys> fValues;
};

wire::Hello helloOf(Members& members) {
    wire::Hello hello;
    hello.version = members.number(Key::kVersion);
    hello.client = members.textOr(Key::kClient);
    if (hello.client.size() > wire::kMaxClient) Members::fail(Key::kClient);
    if (members.has(Key::kSubscribe)) hello.subscribe = members.texts(Key::kSubscribe);
    if (members.has(Key::kResume)) hello.resume = members.flag(Key::kResume);
    hello.view = members.textOr(Key::kView);
    if (!hello.view.empty()) hello.last = members.number(Key::kLast);
    if (members.has(Key::kRefused)) hello.refused = members.numbers(Key::kRefused);
    const bool isWrong = members.has(Key::kLimits) &&
                         (members[Key::kLimits].kind != Kind::kObject || members.isMaxBlockWrong);
    if (isWrong) Members::fail(Key::kLimits);
    hello.maxBlock = members.maxBlock;
    return hello;
}

wire::Echo echoOf(Members& members) {
    auto& id = members[Key::kId];
    // What is neither a text nor a number has none.
    auto text = id.kind == Kind::kText ? wire::quoted(id.text) : std::move(id.text);
    if (text.empty() || text.size() > wire::kMaxEchoId) Members::fail(Key::kId);
    return {std::move(text), members.has(Key::kTime) && members.flag(Key::kTime)};
}

wire::PageMessage messageOf(Members& members) {
    const auto what = members.text(Key::kT);
    if (what == "publish") {
        return wire::Publish{members.text(Key::kChannel), members.text(Key::kText)};
    }
    if (what == "ack") return wire::Ack{members.number(Key::kLast)};
    if (what == "block") {
        return wire::BlockAnswer{members.number(Key::kTransfer), members.flag(Key::kOk),
                                 members.textOr(Key::kReason)};
    }
    if (what == "subscribe") return wire::Subscribe{members.texts(Key::kChannels)};
    if (what == "unsubscribe") return wire::Unsubscribe{members.texts(Key::kChannels)};
    if (what == "channel") {
        return wire::ChannelName{members.number(Key::kNumber), members.text(Key::kName)};
    }
    if (what == "echo") return echoOf(members);
    if (what == "hello") return helloOf(members);
    return wire::Unknown{what};
}

/// What the parser finds, as messages. A message is an object, alone or in one array.
class Builder {
  public:
    constexpr static auto max_object_size = static_cast<std::size_t>(-1);
    constexpr static auto max_array_size = static_cast<std::size_t>(-1);
    constexpr static auto max_key_size = static_cast<std::size_t>(-1);
    constexpr static auto max_string_size = static_cast<std::size_t>(-1);

    explicit Builder(std::size_t maxNames) : fMaxNames(maxNames) {}

    void setHandler(const FrameReader::Handler* handle) noexcept { fHandle = handle; }
    void beginFrame() {
        fDepth = 0;
        fNames = 0;
        fRefusedCount = 0;
        fIsArray = false;
    }
    [[nodiscard]] std::size_t held() const noexcept { return fHeld; }

    bool on_document_begin(error_code& /*error*/) { return true; }
    bool on_document_end(error_code& /*error*/) { return true; }
    bool on_comment_part(json::string_view /*part*/, error_code& /*error*/) { return true; }
    bool on_comment(json::string_view /*part*/, error_code& /*error*/) { return true; }

    bool on_object_begin(error_code& /*error*/) {
        ++fDepth;
        if (level() == 1) {
            fMembers.clear();
            fHeld = 0;
        } else if (level() == 2) {
            set(Kind::kObject);
        } else if (level() == 3) {
            spoilList();
        }
        return true;
    }
    bool on_object_end(std::size_t /*size*/, error_code& error) {
        const bool isMessage = level() == 1;
        --fDepth;
        if (!isMessage) return true;
        fHeld = 0;
        if ((*fHandle)(messageOf(fMembers))) return true;
        error = json::error::extra_data;  // any error ends the parsing
        return false;
    }
    bool on_array_begin(error_code& /*error*/) {
        ++fDepth;
        if (fDepth == 1) {
            fIsArray = true;
        } else if (level() == 1) {
            notAnObject();
        } else if (level() == 2) {
            set(Kind::kList);
        } else if (level() == 3) {
            spoilList();
        }
        return true;
    }
    bool on_array_end(std::size_t /*size*/, error_code& /*error*/) {
        --fDepth;
        return true;
    }
    bool on_key_part(json::string_view part, std::size_t /*size*/, error_code& /*error*/) {
        add(fKeyText, part);
        return true;
    }
    bool on_key(json::string_view part, std::size_t /*size*/, error_code& /*error*/) {
        add(fKeyText, part);
        if (level() == 1) fKey = keyOf(fKeyText);
        fIsBlockLimit = level() == 2 && fKey == Key::kLimits && fKeyText == "block";
        fKeyText.clear();
        return true;
    }
    bool on_string_part(json::string_view part, std::size_t /*size*/, error_code& /*error*/) {
        takeText(part);
        return true;
    }
    bool on_string(json::string_view part, std::size_t /*size*/, error_code& /*error*/) {
        takeText(part);
        endText();
        return true;
    }
    bool on_number_part(json::string_view part, error_code& /*error*/) {
        add(fNumberText, part);
        return true;
    }
    bool on_int64(std::int64_t number, json::string_view part, error_code& /*error*/) {
        number < 0 ? takeNumber(Kind::kOther, 0, part)
                   : takeNumber(Kind::kNumber, static_cast<std::uint64_t>(number), part);
        return true;
    }
    bool on_uint64(std::uint64_t number, json::string_view part, error_code& /*error*/) {
        takeNumber(Kind::kNumber, number, part);
        return true;
    }
    bool on_double(double number, json::string_view part, error_code& /*error*/) {
        constexpr double kMost = 9007199254740992.0;  // above, a double may stand for several
        const bool isWhole = number >= 0 && number <= kMost &&
                             static_cast<double>(static_cast<std::uint64_t>(number)) == number;
        isWhole ? takeNumber(Kind::kNumber, static_cast<std::uint64_t>(number), part)
                : takeNumber(Kind::kOther, 0, part);
        return true;
    }
    bool on_bool(bool flag, error_code& /*error*/) {
        scalar();
        if (level() == 1) {
            set(Kind::kFlag);
            if (isKnown()) value().flag = flag;
        }
        return true;
    }
    bool on_null(error_code& /*error*/) {
        scalar();
        if (level() == 1) set(Kind::kOther);
        return true;
    }

  private:
    /// 1: directly in a message; 0: outside of any.
    [[nodiscard]] std::size_t level() const noexcept { return fDepth - (fIsArray ? 1 : 0); }
    [[nodiscard]] bool isKnown() const noexcept { return fKey != Key::kUnknown; }
    [[nodiscard]] bool isInList() {
        return level() == 2 && isKnown() && value().kind == Kind::kList;
    }
    Value& value() { return fMembers[fKey]; }
    [[noreturn]] static void notAnObject() { throw wire::BadMessage("not an object"); }

    /// A value that is no container has begun.
    void scalar() {
        if (level() == 0) notAnObject();
        if (isInList()) value().kind = Kind::kOther;
        if (fIsBlockLimit) fMembers.isMaxBlockWrong = true;
    }
    void spoilList() {
        if (isKnown() && value().kind == Kind::kList) value().kind = Kind::kOther;
    }
    void set(Kind kind) {
        if (!isKnown()) return;
        value().kind = kind;
        value().text.clear();
        value().texts.clear();
        value().numbers.clear();
    }
    static void add(std::string& to, json::string_view part) {
        const auto room = kCutAt - std::min(to.size(), kCutAt);
        to.append(part.data(), std::min(part.size(), room));
    }
    /// The string at hand, which is to be kept; null: it is not.
    std::string* textAtHand() {
        if (level() == 0) notAnObject();
        if (!isKnown()) return nullptr;
        if (level() == 1) {
            if (!fIsInText) set(Kind::kText);
            return &value().text;
        }
        if (!isInList()) return nullptr;
        if (!fIsInText) {
            if (++fNames > fMaxNames) throw wire::BadMessage("too many names");
            value().texts.emplace_back();
        }
        return &value().texts.back();
    }
    void takeText(json::string_view part) {
        if (auto* text = textAtHand()) {
            if (fKey == Key::kText && level() == 1) {
                text->append(part.data(), part.size());
            } else {
                add(*text, part);
            }
            fHeld += part.size();
        }
        fIsInText = true;
    }
    void endText() {
        fIsInText = false;
        if (fIsBlockLimit) fMembers.isMaxBlockWrong = true;
    }
    void takeNumber(Kind kind, std::uint64_t number, json::string_view part) {
        if (level() == 0) notAnObject();
        add(fNumberText, part);
        if (fIsBlockLimit && level() == 2) {
            fMembers.isMaxBlockWrong = kind != Kind::kNumber;
            fMembers.maxBlock = number;
        } else if (isKnown() && level() == 1) {
            set(kind);
            value().number = number;
            value().text.swap(fNumberText);
        } else if (isInList()) {
            if (++fRefusedCount > wire::kMaxRefused) throw wire::BadMessage("too many numbers");
            kind == Kind::kNumber ? value().numbers.push_back(number) : spoilList();
        }
        fNumberText.clear();
    }

    const std::size_t fMaxNames;
    const FrameReader::Handler* fHandle = nullptr;
    Members fMembers;
    std::size_t fDepth = 0;
    std::size_t fNames = 0;
    std::size_t fRefusedCount = 0;
    std::size_t fHeld = 0;
    bool fIsArray = false;
    bool fIsInText = false;
    bool fIsBlockLimit = false;
    Key fKey = Key::kUnknown;
    std::string fKeyText;
    std::string fNumberText;
};

json::parse_options parseOptions() {
    json::parse_options options;
    options.max_depth = kMaxDepth;
    return options;
}

}  // namespace

struct FrameReader::Impl {
    explicit Impl(std::size_t maxNames) : parser(parseOptions(), maxNames) {}

    json::basic_parser<Builder> parser;
    SurrogateMender mender;
    bool isBetweenFrames = true;
    bool isPassingOver = false;  ///< nothing more of this frame is looked at
};

FrameReader::FrameReader(std::size_t maxNames) : fImpl(std::make_unique<Impl>(maxNames)) {}

FrameReader::~FrameReader() = default;

void FrameReader::read(std::string_view bytes, bool isLast, const Handler& handle) {
    auto& [parser, mender, isBetweenFrames, isPassingOver] = *fImpl;
    if (std::exchange(isBetweenFrames, isLast)) {
        parser.reset();
        parser.handler().beginFrame();
        mender = {};
        isPassingOver = false;
    }
    if (isPassingOver) return;
    bytes = mender.mend(bytes, isLast);
    bool goesOn = true;
    const Handler noticing = [&](wire::PageMessage&& message) {
        goesOn = handle(std::move(message));
        return goesOn;
    };
    parser.handler().setHandler(&noticing);
    error_code error;
    const auto used = parser.write_some(!isLast, bytes.data(), bytes.size(), error);
    if (!goesOn) {
        isPassingOver = true;
    } else if (error || used < bytes.size() || (isLast && !parser.done())) {
        throw wire::BadMessage("not JSON");
    }
}

std::size_t FrameReader::held() const noexcept { return fImpl->parser.handler().held(); }

}  // namespace kirogateway
