#include "Page.hpp"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cstring>
#include <deque>
#include <mutex>
#include <sstream>
#include <utility>

#include "kiro/web/binary/DataID.hpp"
#include "kirohost/Controls.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "relay/message_service/MessageService.hpp"

namespace figures_test {

namespace json = boost::json;
using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;
using relay::message_service::JsonMessage;

namespace {

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

}  // namespace

struct Page::Impl {
    explicit Impl(const kirofigures::Channels& given) : channels(given) {}
    void take(Page& page, const json::object& command);
    void publish(const std::string& channel, const std::string& text) const {
        service->publish(channel, {channel, text.data(), text.size()});
    }

    const kirofigures::Channels channels;
    const std::shared_ptr<relay::message_service::MessageService> service = makeService();

    mutable std::mutex mutex;  // guards all that follows
    Follower follower;
    std::vector<Frame> frames;
    std::deque<Answer> answers;

    std::unique_ptr<ClientEnd> end;
    std::shared_ptr<relay::message_service::Subscription> subscription;
};

void Page::Impl::take(Page& page, const json::object& command) {
    Answer answer;
    {
        const std::lock_guard lock(mutex);
        if (command.at("cmd").as_string() != "sendACT") {
            follower.command(command);
            return;
        }
        auto& current = follower.current;
        current.picture = follower.picture;
        current.token = command.at("ACT").as_string();
        current.returnChannel = command.at("returnChannel").as_string();
        frames.push_back(current);
        if (!answers.empty()) {
            answer = std::move(answers.front());
            answers.pop_front();
        }
    }
    if (answer == nullptr) answer = outcome("painted");
    answer(page, page.last());
}

void Follower::command(const json::object& command) {
    const auto number = command.at("seq").to_number<std::uint64_t>();
    // A page that came late begins anywhere.
    expect(sequence == 0 || number == sequence + 1, "a gap in the numbers");
    sequence = number;
    const auto name = command.at("cmd").as_string();
    if (name == "beginFrame") {
        current = Frame{command.at("frame").to_number<std::uint64_t>(),
                        command.at("attempt").to_number<std::uint64_t>(),
                        command.at("whole").as_bool(),
                        {},
                        {},
                        {},
                        {}};
        if (current.isWhole) picture.clear();
        return;
    }
    auto kept = command;
    kept.erase("seq");
    current.commands.push_back(std::move(kept));
    const auto id = command.at("id").to_number<std::uint64_t>();
    if (name == "create") return create(command);
    if (!picture.contains(id)) return faults.emplace_back("an unknown object"), void();
    if (name == "set") {
        for (const auto& [key, value] : command) {
            if (key == "seq" || key == "cmd" || key == "id") continue;
            auto& properties = picture[id].properties;
            properties.erase(key);
            if (!value.is_null()) properties[key] = value;
        }
    } else if (name == "data") {
        data(command);
    } else if (name == "remove") {
        picture.erase(id);
        std::erase_if(picture, [this](const auto& one) {
            return one.second.parent != 0 && !picture.contains(one.second.parent);
        });
        // Once more for what was in those; there are three levels.
        std::erase_if(picture, [this](const auto& one) {
            return one.second.parent != 0 && !picture.contains(one.second.parent);
        });
    }
}

void Follower::create(const json::object& command) {
    Shown made;
    made.type = command.at("type").as_string();
    if (command.contains("parent")) made.parent = command.at("parent").to_number<std::uint64_t>();
    expect(made.parent == 0 || picture.contains(made.parent), "no parent");
    for (const auto& [key, value] : command) {
        if (key == "seq" || key == "cmd" || key == "id" || key == "type" || key == "parent") {
            continue;
        }
        made.properties[key] = value;
    }
    const auto id = command.at("id").to_number<std::uint64_t>();
    expect(picture.emplace(id, std::move(made)).second, "an object made twice");
}

void Follower::data(const json::object& command) {
    kiro::web::binary::DataID id;
    expect(kiro::web::binary::DataID::construct_from_string(
               std::string(command.at("data").as_string()), id) &&
               blocks.contains(id.value()),
           "no block");
    const auto count = command.at("count").to_number<std::size_t>();
    auto& shown = picture[command.at("id").to_number<std::uint64_t>()];
    const auto first = command.at("first").to_number<std::uint64_t>();
    if (first == 0) {
        shown.columns.clear();
        const auto* const base = command.if_contains("base");
        shown.given = base == nullptr ? 0 : base->to_number<std::uint64_t>();
    }
    expect(first == 0 || first == shown.given, "elements were left out");
    shown.given += count;
    const auto& block = blocks[id.value()];
    const char* from = block.data() + 8;
    std::size_t keep = 1'000'000;
    if (const auto* set = shown.properties.if_contains("keep"))
        keep = set->to_number<std::size_t>();
    std::string wider = "f64";
    for (const auto& column : command.at("columns").as_array()) {
        const std::string type(column.at(1).as_string());
        expect(type == wider || type != "f64", "a wide column behind a narrow one");
        wider = type;
        auto& values = shown.columns[std::string(column.at(0).as_string())];
        from = type == "f64"   ? read<double>(from, count, values)
               : type == "f32" ? read<float>(from, count, values)
                               : read<std::uint8_t>(from, count, values);
        if (values.size() > keep) {
            values.erase(values.begin(), values.end() - static_cast<std::ptrdiff_t>(keep));
        }
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
    blocks[id].assign(bytes.begin(), bytes.end());
}

Page::Page(const kirofigures::Channels& channels) : fImpl(std::make_shared<Impl>(channels)) {
    fImpl->end = std::make_unique<ClientEnd>(channels.blocks, [impl = fImpl.get()](Delivery block) {
        const auto& bytes = block.block();
        {
            const std::lock_guard lock(impl->mutex);
            impl->follower.block({bytes.data(), bytes.size()});
        }
        block.deliver();
    });
    fImpl->subscription =
        fImpl->service
            ->subscribe(channels.commands,
                        [this](const JsonMessage& message) {
                            const auto command = json::parse({message.json, message.length});
                            fImpl->take(*this, command.as_object());
                        })
            .get();
}

Page::~Page() {
    fImpl->subscription.reset();
    kirohost::waitForDelivery();  // a call of the handler that has begun
}

void Page::announce() {
    fImpl->publish(fImpl->channels.ready, R"({"binaryChannelStatus": 1, "useFastBinary": 1})");
    fImpl->publish(fImpl->channels.newView, "{}");
}

void Page::comeBack() { fImpl->publish(fImpl->channels.reconnect, "{}"); }

void Page::say(const json::object& event) { sayText(json::serialize(event)); }

void Page::sayText(const std::string& event) { fImpl->publish(fImpl->channels.events, event); }

void Page::end(const Frame& frame, const std::string& outcome, const std::string& error) {
    json::object event{{"event", "frame"},
                       {"frame", frame.number},
                       {"attempt", frame.attempt},
                       {"outcome", outcome}};
    if (!error.empty()) event["error"] = error;
    say(event);
    returnToken(frame);
}

void Page::returnToken(const Frame& frame) {
    fImpl->publish(frame.returnChannel, json::serialize(json::object{{"ACT", frame.token}}));
}

void Page::next(Answer answer) {
    const std::lock_guard lock(fImpl->mutex);
    fImpl->answers.push_back(std::move(answer));
}

std::vector<Frame> Page::frames() const {
    const std::lock_guard lock(fImpl->mutex);
    return fImpl->frames;
}

std::vector<std::string> Page::faults() const {
    const std::lock_guard lock(fImpl->mutex);
    return fImpl->follower.faults;
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
