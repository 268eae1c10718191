#include "client/HeadlessClient.hpp"

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include "annotated/Mutex.hpp"
#include "client/Checker.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "relay/message_service/MessageService.hpp"

namespace monitor::client {

using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;
using relay::message_service::JsonMessage;

namespace {

/// Microseconds since 1970, by this side's own clock.
std::uint64_t now() {
    const auto since1970 = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(since1970).count());
}

struct Message {
    std::string text;
    std::uint64_t received = 0;
};
using Event = std::variant<Message, Delivery>;

/// Hands the events of all threads to the client's one, in the order of arrival.
class Mailbox {
  public:
    void put(Event event) EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        fEvents.push_back(std::move(event));
        fChanged.notify_one();
    }

    /// No event comes any more.
    void close() EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        fClosed = true;
        fChanged.notify_one();
    }

    /// The next event; waits for it. Nothing when the box is closed and empty.
    // The condition variable unlocks and locks behind the analysis's back.
    std::optional<Event> take() NO_THREAD_SAFETY_ANALYSIS {
        std::unique_lock lock(fMutex.native());
        while (fEvents.empty() && !fClosed) fChanged.wait(lock);
        if (fEvents.empty()) return std::nullopt;
        std::optional<Event> event(std::move(fEvents.front()));
        fEvents.pop_front();
        return event;
    }

  private:
    annotated::Mutex fMutex;
    std::condition_variable fChanged;
    std::deque<Event> fEvents GUARDED_BY(fMutex);
    bool fClosed GUARDED_BY(fMutex) = false;
};

std::shared_ptr<relay::message_service::MessageService> makeService() {
    relay::getRelay();
    return relay::message_service::createMessageService("headless client", {}).get();
}

}  // namespace

class HeadlessClient::Impl {
  public:
    Impl(const ReferenceData& data, const Script& script, kirofigures::Channels channels);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void beginView() { publish(fChannels.newView, {}); }
    void announceReady();
    ClientResult finish();

  private:
    void run();
    void handle(const Message& message);
    void handle(Delivery& delivery);
    /// The view that there was is gone.
    void beginAnew(const std::string& channel);
    /// Draws what can be drawn, and deals with the tokens that fall due.
    void draw();
    void handle(const Token& token);
    void answer(const Token& token);
    void pickAfter(const Token& token);
    void publish(const std::string& channel, const boost::json::object& message);

    const Script fScript;
    const kirofigures::Channels fChannels;

    // Of the client's thread, once it runs.
    ClientResult fResult;
    Checker fChecker;
    Inbox fInbox;
    std::uint64_t fBlocksSeen = 0;
    std::uint64_t fTokensSeen = 0;
    std::uint64_t fLastReceived = 0;

    // Used by several threads.
    const std::shared_ptr<Mailbox> fMailbox = std::make_shared<Mailbox>();
    const std::shared_ptr<relay::message_service::MessageService> fService = makeService();
    std::shared_ptr<relay::message_service::Subscription> fSubscription;
    ClientEnd fBlocks;
    std::thread fThread;
};

HeadlessClient::Impl::Impl(const ReferenceData& data, const Script& script,
                           kirofigures::Channels channels)
    : fScript(script),
      fChannels(std::move(channels)),
      fChecker(data, fResult.findings),
      fInbox(fChecker, fResult.findings),
      fSubscription(
          fService
              ->subscribe(
                  fChannels.commands,
                  [mailbox = fMailbox](const JsonMessage& message) {
                      mailbox->put(Message{std::string(message.json, message.length), now()});
                  })
              .get()),
      fBlocks(fChannels.blocks,
              [mailbox = fMailbox](Delivery delivery) { mailbox->put(std::move(delivery)); }),
      fThread([this] { run(); }) {}

HeadlessClient::Impl::~Impl() {
    fMailbox->close();
    if (fThread.joinable()) fThread.join();
}

ClientResult HeadlessClient::Impl::finish() {
    fMailbox->close();
    fThread.join();
    fInbox.finish();
    fResult.received = fInbox.received();
    return fResult;
}

void HeadlessClient::Impl::run() {
    while (auto event = fMailbox->take()) {
        std::visit([this](auto& what) { handle(what); }, *event);
        draw();
    }
}

void HeadlessClient::Impl::announceReady() {
    if (fScript.silent) return;
    publish(fChannels.ready, {{"binaryChannelStatus", 1}, {"useFastBinary", 1}});
}

void HeadlessClient::Impl::handle(const Message& message) {
    fLastReceived = message.received;
    fInbox.message(message.text);
}

void HeadlessClient::Impl::handle(Delivery& delivery) {
    ++fBlocksSeen;
    if (fScript.failEvery != 0 && fBlocksSeen % fScript.failEvery == 0) {
        ++fResult.blocksFailed;
        delivery.fail();  // It comes again, as text.
        return;
    }
    fInbox.streamBlock({delivery.block().data(), delivery.block().size()});
    delivery.deliver();
}

void HeadlessClient::Impl::draw() {
    while (const auto token = fInbox.next()) handle(*token);
}

void HeadlessClient::Impl::handle(const Token& token) {
    if (fScript.reconnectAt == token.frame.number && fResult.reconnections == 0) {
        ++fResult.reconnections;
        beginAnew(fChannels.reconnect);
        return;
    }
    if (fScript.newViewAt == token.frame.number && fResult.newViews == 0) {
        ++fResult.newViews;
        beginAnew(fChannels.newView);
        return;
    }
    ++fTokensSeen;
    if (fScript.dropEvery != 0 && fTokensSeen % fScript.dropEvery == 0) {
        ++fResult.tokensDropped;
        return;
    }
    pickAfter(token);
    answer(token);
}

void HeadlessClient::Impl::beginAnew(const std::string& channel) {
    fChecker.expectRepeat();
    publish(channel, {});
    announceReady();
}

void HeadlessClient::Impl::answer(const Token& token) {
    publish(fChannels.events, {{"event", "frame"},
                               {"frame", token.frame.number},
                               {"attempt", token.frame.attempt},
                               {"outcome", "painted"}});
    boost::json::object reply{{"ACT", token.act}};
    if (token.serverSend) {
        reply["serverSendTS"] = *token.serverSend;
        reply["clientReceiveTS"] = fLastReceived;
        reply["clientSendTS"] = now();
    }
    ++fResult.tokensAnswered;
    publish(token.returnChannel, reply);
}

void HeadlessClient::Impl::pickAfter(const Token& token) {
    if (fScript.pickEvery == 0 || token.frame.number % fScript.pickEvery != 0) return;
    ++fResult.picks;
    publish(fChannels.events, fChecker.pick());
}

void HeadlessClient::Impl::publish(const std::string& channel, const boost::json::object& message) {
    const std::string text = boost::json::serialize(message);
    fService->publish(channel, {channel, text.data(), text.size()});
}

HeadlessClient::HeadlessClient(const ReferenceData& data, const Script& script,
                               const kirofigures::Channels& channels)
    : fImpl(std::make_unique<Impl>(data, script, channels)) {}

HeadlessClient::~HeadlessClient() = default;

void HeadlessClient::beginView() { fImpl->beginView(); }

void HeadlessClient::announceReady() { fImpl->announceReady(); }

ClientResult HeadlessClient::finish() { return fImpl->finish(); }

}  // namespace monitor::client
