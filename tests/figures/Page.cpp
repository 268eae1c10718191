#include "Page.hpp"

#include <boost/json/array.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cstring>
#include <set>
#include <sstream>
#include <utility>

#include "kiro/web/binary/DataID.hpp"
#include "kirohost/Controls.hpp"
#include "relay/Relay.hpp"

namespace figures_test {

namespace json = boost::json;
using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;
using relay::message_service::JsonMessage;

namespace {

// The stamps of each frame.
constexpr std::uint64_t kPainting = 5;
constexpr std::uint64_t kSent = 7;

std::shared_ptr<relay::message_service::MessageService> makeService() {
    relay::getRelay();
    return relay::message_service::createMessageService("page", {}).get();
}

template <typename Number>
const char* read(const char* from, std::size_t count, std::vector<double>& into) {
    for (std::size_t i = 0; i < count; ++i, from += sizeof(Number)) {
        Number number;
        std::memcpy(&number, from, sizeof number);
        into.push_back(static_cast<double>(number));
    }
    return from;
}

/// What may be said or not.
std::uint64_t optional(const json::object& all, const char* key, std::uint64_t otherwise = 0) {
    const auto* const number = all.if_contains(key);
    return number == nullptr ? otherwise : number->to_number<std::uint64_t>();
}

}  // namespace

void Follower::command(const json::object& command) {
    const auto number = command.at("seq").to_number<std::uint64_t>();
    // A page that came late begins anywhere.
    expect(sequence == 0 || number == sequence + 1, "a gap in the numbers");
    sequence = number;
    const auto name = command.at("cmd").as_string();
    if (name == "beginFrame") {
        current = {};
        current.number = command.at("frame").to_number<std::uint64_t>();
        current.attempt = command.at("attempt").to_number<std::uint64_t>();
        current.isWhole = command.at("whole").as_bool();
        if (current.isWhole) picture.clear();
        return;
    }
    current.commands.push_back(command);
    current.commands.back().erase("seq");
    const auto id = command.at("id").to_number<std::uint64_t>();
    const bool isNew = name == "create";
    expect(picture.contains(id) != isNew, "an object made twice, or an unknown one");
    auto& shown = picture[id];
    if (isNew) {
        shown.type = command.at("type").as_string();
        shown.parent = optional(command, "parent");
        expect(shown.parent == 0 || picture.contains(shown.parent), "no parent");
    }
    if (name == "data") return data(command, shown);
    if (name == "remove") {
        picture.erase(id);
        const auto isOrphan = [this](const auto& one) {
            return one.second.parent != 0 && !picture.contains(one.second.parent);
        };
        while (std::erase_if(picture, isOrphan) > 0) continue;
        return;
    }
    static const std::set<std::string_view> kOthers{"seq", "cmd", "id", "type", "parent"};
    for (const auto& [key, value] : command) {
        if (kOthers.contains(key)) continue;
        shown.properties.erase(key);
        if (!value.is_null()) shown.properties[key] = value;
    }
}

void Follower::data(const json::object& command, Shown& shown) {
    kiro::web::binary::DataID id;
    expect(kiro::web::binary::DataID::construct_from_string(
               std::string(command.at("data").as_string()), id) &&
               fBlocks.contains(id.value()),
           "no block");
    const auto count = command.at("count").to_number<std::size_t>();
    const auto first = command.at("first").to_number<std::uint64_t>();
    if (first == 0) {
        shown.columns.clear();
        shown.given = optional(command, "base");
    }
    expect(first == 0 || first == shown.given, "elements were left out");
    shown.given += count;
    const auto& block = fBlocks[id.value()];
    const char* from = block.data() + sizeof id.value();
    const auto keep = optional(shown.properties, "keep", 1'000'000);
    for (const auto& column : command.at("columns").as_array()) {
        const std::string type(column.at(1).as_string());
        auto& values = shown.columns[std::string(column.at(0).as_string())];
        from = type == "f64"   ? read<double>(from, count, values)
               : type == "f32" ? read<float>(from, count, values)
                               : read<std::uint8_t>(from, count, values);
        if (values.size() > keep)
            values.erase(values.begin(), values.end() - static_cast<std::ptrdiff_t>(keep));
    }
    expect(from == block.data() + block.size(), "a block of another size");
    const auto* const regular = shown.properties.if_contains("regular");
    if (regular == nullptr || shown.columns.empty()) return;
    shown.columns.erase("x");
    const std::size_t kept = shown.columns.begin()->second.size();
    auto& x = shown.columns["x"];
    for (std::size_t i = 0; i < kept; ++i) {
        x.push_back(regular->at(0).as_double() +
                    static_cast<double>(shown.given - kept + i) * regular->at(1).as_double());
    }
}

void Follower::block(std::string_view bytes) {
    std::uint64_t id = 0;
    std::memcpy(&id, bytes.data(), sizeof id);
    fBlocks[id] = bytes;
}

Page::Page(const kirofigures::Channels& channels, Aside aside)
    : fChannels(channels), fAside(std::move(aside)), fService(makeService()) {
    fEnd = std::make_unique<ClientEnd>(channels.blocks, [this](Delivery block) {
        fAside([this, &bytes = block.block()] {
            const std::lock_guard lock(fMutex);
            fFollower.block({bytes.data(), bytes.size()});
        });
        block.deliver();
    });
    const auto hear = [this](const JsonMessage& message) {
        take(json::parse({message.json, message.length}).as_object());
    };
    fSubscription = fService->subscribe(channels.commands, hear).get();
}

Page::~Page() {
    fSubscription.reset();
    kirohost::waitForDelivery();  // a call of the handler that has begun
}

void Page::take(const json::object& command) {
    Answer answer = outcome("painted");
    {
        const std::lock_guard lock(fMutex);
        if (command.at("cmd").as_string() != "sendACT") return fFollower.command(command);
        fFrames.push_back(fFollower.current);
        fFrames.back().picture = fFollower.picture;
        fFrames.back().token = command.at("ACT").as_string();
        fFrames.back().returnChannel = command.at("returnChannel").as_string();
        if (!fAnswers.empty()) {
            answer = std::move(fAnswers.front());
            fAnswers.pop_front();
        }
    }
    answer(*this, last());
}

void Page::publish(const std::string& channel, const std::string& text) {
    fService->publish(channel, {channel, text.data(), text.size()});
}

void Page::announce() {
    publish(fChannels.ready, R"({"binaryChannelStatus": 1, "useFastBinary": 1})");
    publish(fChannels.newView, "{}");
}

void Page::report(const Frame& frame, const std::string& outcome, const std::string& error) {
    say(json::serialize(json::object{{"event", "frame"},
                                     {"frame", frame.number},
                                     {"attempt", frame.attempt},
                                     {"outcome", outcome},
                                     {"error", error},
                                     {"clientPaint", kPainting},
                                     {"clientSend", kSent}}));
}

void Page::returnToken(const Frame& frame) {
    publish(frame.returnChannel,
            json::serialize(json::object{{"ACT", frame.token}, {"clientSendTS", kSent}}));
}

void Page::end(const Frame& frame, const std::string& outcome, const std::string& error) {
    report(frame, outcome, error);
    returnToken(frame);
}

void Page::next(Answer answer) {
    const std::lock_guard lock(fMutex);
    fAnswers.push_back(std::move(answer));
}

std::vector<Frame> Page::frames() const {
    const std::lock_guard lock(fMutex);
    return fFrames;
}

std::vector<std::string> Page::faults() const {
    const std::lock_guard lock(fMutex);
    return fFollower.faults;
}

std::vector<std::string> linesOf(const Picture& picture) {
    std::vector<std::string> lines;
    for (const auto& [id, shown] : picture) {
        std::map<std::string, std::string> properties;  // in whatever order they came
        for (const auto& [key, value] : shown.properties) properties[key] = json::serialize(value);
        properties.erase("regular");  // x says it
        std::ostringstream line;
        line << id << " in " << shown.parent << ": " << shown.type;
        for (const auto& [key, value] : properties) line << ' ' << key << '=' << value;
        for (const auto& [name, values] : shown.columns) {
            line << ' ' << name << ':';
            for (const double value : values) line << ' ' << value;
        }
        lines.push_back(line.str());
    }
    return lines;
}

Page::Answer outcome(const std::string& outcome, const std::string& error) {
    return [outcome, error](Page& page, const Frame& frame) { page.end(frame, outcome, error); };
}

}  // namespace figures_test
