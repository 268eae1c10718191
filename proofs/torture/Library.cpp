// The operations of the library.
#include <mutex>
#include <optional>

#include "Binary.hpp"
#include "Scenario.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/ExportCommandSender.hpp"
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/RelayPubSub.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiro/web/Subscriber.hpp"
#include "kiro/web/WebBlockingOperation.hpp"
#include "kiro/web/WebTerminatingCondition.hpp"
#include "kiro/web/binary/BinaryDataReceiver.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/Logger.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "ui_objects/Cookie.hpp"
#include "ui_objects/UTF16String.hpp"

namespace torture {
namespace {

using namespace kiro::web;
using namespace kiro::web::binary;
using ui_objects::Cookie;

/// Too long for the room that a string has in itself.
const std::string kLong(40, 'l');
const std::string kText = R"({"n":7,"t":")" + kLong + R"(","l":[")" + kLong +
                          R"(","b"],"id":"12 34","c":"9007199254740993","o":{"a":[1,{"b":2}]}})";

// --- JSON ----------------------------------------------------------------------------------------

struct Read {
    std::optional<JSONObject> object = JSONObject(kText);
    std::optional<JSONObject> other;
    std::string text = "before";
    std::vector<std::string> texts{"before"};
    Cookie cookie;
    DataID id;

    template <typename T>
    void get(const char* key, T& out) {
        if (!object->getValue(key, out)) finding(std::string("cannot read ") + key);
    }
    std::string state() const {
        auto all = text + (object && object->isValid() ? " valid" : " none") +
                   (other && other->isValid() ? " valid" : " none");
        for (const auto& one : texts) all += ' ' + one;
        return all + ' ' + std::to_string(cookie.value()) + ' ' + std::to_string(id.value());
    }
};

struct Built {
    std::optional<JSONPayload> payload = JSONPayload(R"({"before":1})");
    std::string text;
    std::string state() const { return (payload ? payload->convertToString() : "") + text; }
};

/// Adds a field of each type.
template <typename... Types>
void addFields(Scenarios& all, const std::pair<const char*, Types>&... values) {
    const auto add = [&all](const char* type, const auto& value) {
        all.push_back(
            scenario(std::string("payload: add ") + type, kBadAlloc | kUnchanged, [value] {
                const auto built = std::make_shared<Built>();
                return Round{{[built, value] { built->payload->addDataToPayload(kLong, value); }},
                             [built] { return built->state(); }};
            }));
    };
    (add(values.first, values.second), ...);
}

void addJson(Scenarios& all) {
    const auto a = [&all](auto&& one) { all.push_back(one); };
    constexpr unsigned kStrong = kBadAlloc | kUnchanged;
    a(scenario<Read>("object: parse", kBadAlloc, {[](Read& read) { read.other.emplace(kText); }}));
    a(scenario<Read>("object: parse UTF-16", kBadAlloc, {[](Read& read) {
                         read.other.emplace(std::u16string(kText.begin(), kText.end()));
                     }}));
    a(scenario<Read>("object: copy, nested, names", kBadAlloc,
                     {[](Read& read) { read.other.emplace(*read.object); },
                      [](Read& read) { read.other.emplace(read.object->getObject("o")); },
                      [](Read& read) { read.texts = read.object->getNames(); }}));
    a(scenario<Read>(
        "object: read", kStrong,
        {[](Read& read) { read.get("t", read.text); }, [](Read& read) { read.get("o", read.text); },
         [](Read& read) { read.get("l", read.texts); },
         [](Read& read) { read.get("c", read.cookie); },
         [](Read& read) { read.get("id", read.id); }}));
    a(scenario<Built>("payload: parse", kBadAlloc,
                      {[](Built& built) { built.payload.emplace(kText); }}));
    a(scenario<Built>("payload: to text", kStrong,
                      {[](Built& built) { built.text = built.payload->convertToString(); }}));
    a(scenario<Built>("payload: a text as it is", kStrong,
                      {[](Built& built) { built.text = StringPayload(kLong).convertToString(); }}));
    const Cookie cookie(1'000'000'000'000'000'000);
    addFields(all, std::pair("bool", true), std::pair("int", 1), std::pair("long", 1L),
              std::pair("unsigned long", 1UL), std::pair("double", 1.5), std::pair("float", 1.5F),
              std::pair("text", kLong), std::pair("C text", "too long for a small string's room"),
              std::pair("UTF-16", ui_objects::UTF16String(std::u16string(40, u'\u20ac'))),
              std::pair("cookie", cookie), std::pair("cookies", std::vector<Cookie>(3, cookie)),
              std::pair("identifier", DataID(4'000'000'000U, 4'000'000'000U)),
              std::pair("weight", FONT_WEIGHT_DEMI), std::pair("angle", FONT_ANGLE_ITALIC),
              std::pair("texts", std::vector<std::string>(3, kLong)),
              std::pair("lists", std::vector(2, std::vector<std::string>(2, kLong))),
              std::pair("bytes", std::vector<unsigned char>(9, 'a')),
              std::pair("unsigned ints", std::vector<unsigned int>(9, 1)),
              std::pair("unsigned longs", std::vector<unsigned long>(9, 1)),
              std::pair("doubles", std::vector<double>(9, 0.5)),
              std::pair("floats", std::vector<float>(9, 0.5F)));
    a(scenario<Built>("payload: add payload", kStrong, {[](Built& built) {
                          built.payload->addDataToPayload("nested", *built.payload);
                      }}));
}

// --- The way of messages -------------------------------------------------------------------------

/// Steers everything onto one endpoint, which delivers on the publishing thread.
void useFakeEndpoint() {
    [[maybe_unused]] static const bool isSet = [] {
        PubSubFactory::setPubSubCreationFcn(
            [] { return std::make_shared<kiro::web::test::FakePubSub>(); });
        return true;
    }();
}

void publish(const std::string& channel, const std::string& text) {
    StringPayload payload(text);
    PubSubFactory::pubsubInstance()->publish(channel, payload);
}

/// What has come on a channel.
class Ear {
  public:
    PubSubInterface::CallbackType callback() {
        return [this](const std::string& /*channel*/, const PayloadInterface& payload) {
            const auto text = payload.convertToString();
            const Spared spared;
            fTexts.add(text);
        };
    }
    std::string heard() const {
        std::string all;
        for (const auto& text : fTexts.all()) all += text + ' ';
        return all;
    }

  private:
    support::Collector<std::string> fTexts;
};

/// An endpoint, and who listens there. `Endpoint` is made in the first step.
template <typename Endpoint>
struct Talk {
    Ear ear;
    std::shared_ptr<PubSubInterface> endpoint;
    std::unique_ptr<Subscriber> subscriber;
    static void make(Talk& talk) { talk.endpoint = std::make_shared<Endpoint>(); }
    static void listen(Talk& talk) {
        talk.subscriber = subscribe(talk.endpoint, "/" + kLong, talk.ear.callback());
    }
    static void say(Talk& talk) {
        StringPayload payload(kLong);
        talk.endpoint->publish("/" + kLong, payload);
        const Spared spared;
        kirohost::waitForDelivery();
    }
    static void leave(Talk& talk) { talk.subscriber.reset(); }
    std::string state() const {
        kirohost::waitForDelivery();
        return ear.heard();
    }
};

// --- Blocks --------------------------------------------------------------------------------------

struct Blocks {
    Blocks() { useFakeEndpoint(); }
    BinaryDataPayload payload = support::payloadOf({5});
    relay::common::DataBuffer block = support::bufferOf(support::blockBytes(6, kLong));
    Built out;
    std::shared_ptr<support::ScriptedSender> sender = std::make_shared<support::ScriptedSender>();
    bool isRead = false;
    std::string state() const {
        return std::to_string(payload.size()) + ' ' + std::to_string(block.size()) + ' ' +
               out.state() + std::to_string(isRead);
    }
};

relay::common::DataBuffer block() {
    const Spared spared;
    return support::bufferOf(support::blockBytes(4));
}

/// What goes over the host's stream of a channel to a client end.
struct Stream {
    Stream() { useFakeEndpoint(); }
    ~Stream() {
        BinaryStreamLifeCycle::destroyBinaryDataReceiver(channel);
        BinaryStreamLifeCycle::destroyBinaryStream(channel);
    }
    const std::string channel = "/" + kLong;
    int blocks = 0;
    relay::binary::experimental::ClientEnd client{channel, [this](auto&& delivery) {
                                                      ++blocks;
                                                      delivery.deliver();
                                                  }};
    std::shared_ptr<BinaryDataSenderInterface> sender;
    BinaryDataSenderInterface::SendFuture sent;
    std::string state() const { return std::to_string(blocks); }
};

void addBlocks(Scenarios& all) {
    const auto a = [&all](auto&& one) { all.push_back(one); };
    constexpr unsigned kStrong = kOutOfMemory | kUnchanged;
    a(scenario<Blocks>("blocks: add a copy", kStrong, {[](Blocks& b) {
                           b.payload.addDataToPayloadInternal(kLong.data(), kLong.size());
                       }}));
    a(scenario<Blocks>("blocks: add a block", kStrong,
                       {[](Blocks& b) { b.payload.addDataToPayload(std::move(b.block)); }}));
    a(scenario<Blocks>("blocks: to JSON", kStrong,
                       {[](Blocks& b) { b.payload.convertToJSONPayload(*b.out.payload); }}));
    a(scenario<Blocks>("blocks: send", kOutOfMemory | kBadAlloc | kUnchanged,
                       {[](Blocks& b) { b.payload.sendUsing(b.sender, "/b"); }}));
    // Who has published has handed the block over, whatever listeners do with it.
    a(scenario<Blocks>("blocks: send as text", kBadAlloc | kOutOfMemory | kSilent,
                       {[](Blocks& b) { b.payload.sendUsing(nullptr, "/b"); }}));
    a(scenario<Blocks>("identifier: to text and back", kBadAlloc, {[](Blocks& b) {
                           const DataID id(4'000'000'000U, 4'000'000'000U);
                           b.out.text = id.convert_to_string();
                       }}));
    a(scenario<Blocks>("identifier: read", kNothing, {[](Blocks& b) {
                           static const std::string text("4000000000 4000000000");
                           DataID id;
                           static_cast<void>(DataID::construct_from_string(text, id));
                           b.isRead = id.second == 4'000'000'000U;
                       }}));
    a(scenario<Stream>(
        "stream: make, send, end", kBadAlloc | kOutOfMemory,
        {[](Stream& s) { BinaryStreamLifeCycle::initBinaryStream(s.channel); },
         [](Stream& s) { s.sender = createBinaryDataSender(s.channel); },
         [](Stream& s) { s.sent = s.sender->send(block()); }, [](Stream& s) { s.sender.reset(); },
         [](Stream& s) { BinaryStreamLifeCycle::destroyBinaryStream(s.channel); }}));
    // Without the memory for a block there is a notice in its place, and a warning if there can be.
    a(scenario<Stream>("stream: build and send", kBadAlloc | kOutOfMemory,
                       {[](Stream& s) { s.sender = createBinaryDataSender(s.channel); },
                        [](Stream& s) { s.sent = s.sender->send(DataID(4), "data", 4); }}));
    a(scenario<Stream>("stream: warn", kBadAlloc,
                       {[](Stream& s) { s.sender = createBinaryDataSender(s.channel); },
                        [](Stream& s) { s.sender->warnAboutSendFailure(s.channel); },
                        [](Stream& s) { s.sender->warnAboutOOMFailure(); }}));
    a(scenario<Stream>(
        "stream: receive", kBadAlloc,
        {[](Stream& s) {
             auto& slot = IdToBinaryDataReceiver::getInstance().getOrCreateStreamChannel(s.channel);
             slot = createBinaryDataReceiver(s.channel);
             slot->receive([&s](auto&&) { ++s.blocks; });
         },
         [](Stream& s) { s.client.send(s.channel, block()); },
         [](Stream& s) { BinaryStreamLifeCycle::destroyBinaryDataReceiver(s.channel); }}));
}

// --- Commands ------------------------------------------------------------------------------------

struct Export {
    std::optional<ExportCommandSender> sender;
    std::string state() const {
        std::string all;
        for (const auto& text : sender->getCommandsAsStrings()) all += text + ' ';
        for (const auto size : sender->getPublishSizeInBytes()) all += std::to_string(size) + ' ';
        return all;
    }
};

/// A sender, and the client that it waits for.
struct Engine {
    Engine() {
        useFakeEndpoint();
        subscriber = subscribe(PubSubFactory::pubsubInstance(), "/f", ear.callback());
        binary::test::RegisterBinaryDataSenderCreationFunction(
            [](const std::string&) { return std::make_shared<support::ScriptedSender>(); });
    }
    Ear ear;
    std::unique_ptr<Subscriber> subscriber;
    std::unique_ptr<BootstrappingCommandSender> sender;

    static void make(Engine& engine) {
        engine.sender = std::make_unique<BootstrappingCommandSender>("/f", "/listener/" + kLong);
    }
    static void announce(Engine& /*engine*/) {
        publish("/f/channelReady", R"({"binaryChannelStatus":1,"useFastBinary":1})");
    }
    static void send(Engine& engine) { engine.sender->sendCommand(kLong, JSONPayload(kText)); }
    static void sendBlock(Engine& e) { e.sender->sendBinaryData(support::payloadOf({4})); }
    static void sendAsync(Engine& e) { e.sender->sendBinaryDataAsync(support::payloadOf({4})); }
    static void name(Engine& engine) { engine.sender->setBinaryChannelName("/" + kLong); }
    static void end(Engine& engine) { engine.sender.reset(); }
    std::string state() const { return ear.heard(); }
};

void addSenders(Scenarios& all) {
    const auto a = [&all](auto&& one) { all.push_back(one); };
    a(scenario<Export>("export: record", kBadAlloc | kOutOfMemory,
                       {[](Export& e) { e.sender.emplace(); },
                        [](Export& e) { e.sender->setSizeStatsEnabled(true); },
                        [](Export& e) { e.sender->sendCommand(kLong, JSONPayload(kText)); },
                        [](Export& e) {
                            e.sender->sendBinaryData(support::payloadOf({4, 5}));
                        },
                        [](Export& e) { e.sender->sendBinaryDataAsync(support::payloadOf({4})); },
                        [](Export& e) { e.sender->setSizeStatsEnabled(false); }}));
    constexpr unsigned kAny = kBadAlloc | kOutOfMemory | kSystem;
    a(scenario<Engine>("sender: make and end", kBadAlloc, {&Engine::make, &Engine::end}));
    a(scenario<Engine>("sender: keep what waits", kAny,
                       {&Engine::make, &Engine::send, &Engine::sendBlock, &Engine::sendAsync,
                        &Engine::announce, &Engine::end}));
    a(scenario<Engine>(
        "sender: send directly", kAny,
        {&Engine::make, &Engine::announce, &Engine::send, &Engine::send, &Engine::end}));
    a(scenario<Engine>("sender: send blocks", kAny,
                       {&Engine::make, &Engine::name, &Engine::announce, &Engine::sendBlock,
                        &Engine::sendAsync, &Engine::name, &Engine::end}));
    a(scenario<Talk<kiro::web::test::FakePubSub>>(
        "endpoint: in the process", kBadAlloc,
        {&Talk<kiro::web::test::FakePubSub>::make, &Talk<kiro::web::test::FakePubSub>::listen,
         &Talk<kiro::web::test::FakePubSub>::say, &Talk<kiro::web::test::FakePubSub>::leave}));
    a(scenario<Talk<RelayPubSub>>("endpoint: over the host", kBadAlloc | kOutOfMemory,
                                  {&Talk<RelayPubSub>::make, &Talk<RelayPubSub>::listen,
                                   &Talk<RelayPubSub>::say, &Talk<RelayPubSub>::leave}));
    a(scenario<Talk<RelayPubSub>>("endpoint: with a default", kBadAlloc,
                                  {[](Talk<RelayPubSub>& talk) {
                                      talk.endpoint = PubSubFactory::makePubSubWithDefault(
                                          [] { return std::make_shared<RelayPubSub>(); });
                                  }}));
}

// --- Tokens and waits ----------------------------------------------------------------------------

struct Tokens {
    Tokens() {
        useFakeEndpoint();
        auto settings = kirohost::settings();
        settings.drawnowTimeoutLogging = settings.atOstrel = true;
        settings.drawnowTimeoutSeconds = 0;
        kirohost::setSettings(settings);
    }
    ~Tokens() { kiroutils::Logger::instance().clearHistory("DrawnowTimeout"); }
    std::shared_ptr<ExportCommandSender> sender = std::make_shared<ExportCommandSender>();
    std::unique_ptr<PubSubACTRequestor> requestor;
    kiroutils::CompletionToken token;

    static void make(Tokens& t) {
        t.requestor = std::make_unique<PubSubACTRequestor>(t.sender, "/return", kLong, "web", true);
        t.requestor->enableTimeStampLogging(true);
    }
    static void send(Tokens& t) { t.token = t.requestor->sendACT(); }
    static void reply(Tokens& t) {
        publish("/return", R"({"ACT":")" + t.token.convertToString() + R"(","clientSendTS":7})");
    }
    static void expire(Tokens& t) {
        auto settings = kirohost::settings();
        settings.drawnowTimeoutSeconds = -1;
        kirohost::setSettings(settings);
        static_cast<void>(t.requestor->isACTPending());
    }
    static void end(Tokens& t) { t.requestor.reset(); }
    std::string state() const {
        const auto wakeUps = kirohost::runPendingTasks();
        if (requestor == nullptr) return std::to_string(wakeUps);
        return std::to_string(requestor->isACTPending()) + ' ' + std::to_string(wakeUps) + ' ' +
               std::to_string(requestor->getTimeStampLog().size()) + ' ' +
               std::to_string(sender->getCommandsAsStrings().size());
    }
};

struct Views {
    Views() { useFakeEndpoint(); }
    std::shared_ptr<ConnectionStatus> status;
    kiroutils::EventDispatcher::Listener listener;
    std::unique_ptr<Subscriber> subscriber;
    std::unique_ptr<WebTerminatingCondition> condition;
    int heard = 0;

    static void make(Views& v) { v.status = std::make_shared<ConnectionStatus>("/back", "/view"); }
    static void open(Views& /*views*/) { publish("/view", "{}"); }
    static void comeBack(Views& /*views*/) { publish("/back", "{}"); }
    static void listen(Views& v) {
        v.listener = v.status->createNewViewListener([&v] { ++v.heard; });
    }
    static void hear(Views& v) {
        v.subscriber = v.status->createReconnectSubscriber([&v](auto&&...) { v.heard += 10; });
    }
    static void await(Views& v) {
        v.condition = std::make_unique<WebTerminatingCondition>(
            kLong, [] { return false; }, v.status);
    }
    static void wait(Views& v) {
        WebBlockingOperation::waitOrThrow(
            kLong, [] { return true; }, v.status, [] {});
    }
    static void look(Views& v) {
        try {
            v.condition->doThrowIfError();
        } catch (const kiroutils::TerminatingConditionException&) {
            v.heard += 100;
        }
    }
    std::string state() const { return std::to_string(heard); }
};

}  // namespace

void addLibrary(Scenarios& all) {
    addJson(all);
    addBlocks(all);
    addSenders(all);
    const auto a = [&all](auto&& one) { all.push_back(one); };
    a(scenario<Tokens>("token: make and end", kBadAlloc, {&Tokens::make, &Tokens::end}));
    a(scenario<Tokens>("token: send", kBadAlloc, {&Tokens::make, &Tokens::send}));
    a(scenario<Tokens>("token: come back", kBadAlloc,
                       {&Tokens::make, &Tokens::send, &Tokens::reply, &Tokens::end}));
    a(scenario<Tokens>("token: be overdue", kBadAlloc,
                       {&Tokens::make, &Tokens::send, &Tokens::expire}));
    a(scenario<Tokens>("token: log", kBadAlloc,
                       {&Tokens::make, [](Tokens& t) { t.requestor->setAnnotation(kLong); },
                        [](Tokens& t) {
                            t.requestor->log(kLong, {{"key", kLong}});
                        },
                        [](Tokens& t) { t.requestor->discardAllTokens(); },
                        [](Tokens& t) { t.requestor->setCommandSender(nullptr); }}));
    a(scenario<Views>("views: watch", kBadAlloc,
                      {&Views::make, &Views::listen, &Views::hear, &Views::open, &Views::open,
                       &Views::comeBack}));
    a(scenario<Views>("views: end a wait", kBadAlloc,
                      {&Views::make, &Views::open, &Views::await, &Views::comeBack, &Views::open,
                       &Views::look, &Views::look}));
    a(scenario<Views>("views: wait", kBadAlloc, {&Views::make, &Views::wait}));
}

}  // namespace torture
