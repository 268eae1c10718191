#include "relay/binary/experimental/BinaryStream.hpp"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "RelayLog.hpp"
#include "Replacement.hpp"
#include "StreamsOfContext.hpp"
#include "annotated/Mutex.hpp"
#include "checked/Require.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "text/ChannelPattern.hpp"

namespace relay::binary::experimental {

using common::DataBuffer;

namespace {

/// Throws std::bad_alloc.
DataBuffer copyOf(const DataBuffer& block) {
    if (block.empty()) return {};
    const std::size_t capacity = std::max<std::size_t>(block.size(), 1);
    auto* bytes = static_cast<char*>(std::malloc(capacity));
    if (bytes == nullptr) throw std::bad_alloc();
    std::memcpy(bytes, block.data(), block.size());
    return {bytes, capacity, block.size()};
}

struct Sending;

/// The blocks under way of one stream or to one client end. Any thread.
class UnderWay {
  public:
    /// Does nothing after the end.
    void add(const std::shared_ptr<Sending>& sending);
    void remove(const Sending& sending) noexcept;
    /// Completes all, oldest first, as not delivered.
    void end() noexcept;

    [[nodiscard]] bool hasEnded() const {
        annotated::Lock lock(fMutex);
        return fHasEnded;
    }

  private:
    mutable annotated::Mutex fMutex;
    std::map<std::uint64_t, std::shared_ptr<Sending>> fSendings GUARDED_BY(fMutex);
    bool fHasEnded GUARDED_BY(fMutex) = false;
};

/// One client end, as the exchange knows it.
struct Client {
    Client(std::string channel, ClientEnd::BlockHandler function)
        : pattern(std::move(channel)), handler(std::move(function)) {}

    const ChannelPattern pattern;
    const ClientEnd::BlockHandler handler;
    UnderWay underWay;
};

/// What the engine's end, its sends under way and the client's end share.
class StreamCore {
  public:
    StreamCore(std::string channel, bool returnOnFail)
        : fChannel(std::move(channel)), fReturnOnFail(returnOnFail) {}

    [[nodiscard]] const std::string& channel() const noexcept { return fChannel; }
    [[nodiscard]] bool returnOnFail() const noexcept { return fReturnOnFail; }
    /// The context whose end is the stream's too.
    [[nodiscard]] qnutil::contextmgr::QcrID context() const noexcept { return fContext; }

    void setReceiver(std::shared_ptr<const ReceiveCallback> callback) {
        annotated::Lock lock(fMutex);
        fReceiver.swap(callback);
    }

    [[nodiscard]] std::shared_ptr<const ReceiveCallback> receiver() const {
        annotated::Lock lock(fMutex);
        return fReceiver;
    }

    /// Completes what is under way, and receives no more.
    void end() noexcept {
        setReceiver(nullptr);
        underWay.end();
    }

    UnderWay underWay;

  private:
    const std::string fChannel;
    const bool fReturnOnFail;
    const qnutil::contextmgr::QcrID fContext = graphics_util::getContextQCRID();
    mutable annotated::Mutex fMutex;
    std::shared_ptr<const ReceiveCallback> fReceiver GUARDED_BY(fMutex);
};

/// A block under way: sent, not yet answered. Its delivery, the end of its stream and that of its
/// client end may all answer; the first one does.
struct Sending {
    Sending(std::shared_ptr<StreamCore> theStream, const std::shared_ptr<Client>& theClient,
            DataBuffer&& theBlock)
        : stream(std::move(theStream)), client(theClient), block(std::move(theBlock)) {}

    /// Completes the future unless it has been answered; gives the block back or frees it.
    void answer(bool delivered);
    /// As `answer(false)`, for an end that goes while the client may still read the block: the
    /// engine is given a copy. Without the memory for one the block is lost to it, which it sees.
    void giveUp() noexcept;
    [[nodiscard]] bool isAnswered() const noexcept { return fIsAnswered; }
    void leaveLists() noexcept {
        stream->underWay.remove(*this);
        if (const auto sentTo = client.lock()) sentTo->underWay.remove(*this);
    }

    const std::shared_ptr<StreamCore> stream;
    /// Weak, since the client's handler may itself hold what keeps the delivery.
    const std::weak_ptr<Client> client;
    const std::uint64_t number = ++sLastNumber;  ///< ascending in the order of sending
    DataBuffer block;
    Promise<SendResult> promise;

  private:
    static inline std::atomic<std::uint64_t> sLastNumber = 0;
    std::atomic<bool> fIsAnswered = false;
};

void UnderWay::add(const std::shared_ptr<Sending>& sending) {
    annotated::Lock lock(fMutex);
    if (!fHasEnded) fSendings.emplace(sending->number, sending);
}

void UnderWay::remove(const Sending& sending) noexcept {
    std::shared_ptr<Sending> removed;  // let go outside the lock: what it keeps alive is foreign
    annotated::Lock lock(fMutex);
    const auto found = fSendings.find(sending.number);
    if (found == fSendings.end()) return;
    removed = std::move(found->second);
    fSendings.erase(found);
}

void UnderWay::end() noexcept {
    std::map<std::uint64_t, std::shared_ptr<Sending>> unanswered;
    {
        annotated::Lock lock(fMutex);
        fHasEnded = true;
        unanswered.swap(fSendings);
    }
    for (const auto& [number, sending] : unanswered) sending->giveUp();
}

void Sending::answer(bool delivered) {
    if (fIsAnswered.exchange(true)) return;
    leaveLists();
    DataBuffer givenBack(std::move(block));
    if (delivered || !stream->returnOnFail()) givenBack = {};
    promise.setValue({delivered, std::move(givenBack)});
}

void Sending::giveUp() noexcept {
    if (fIsAnswered.exchange(true)) return;
    leaveLists();
    DataBuffer copy;
    try {
        if (stream->returnOnFail()) copy = copyOf(block);
    } catch (const std::bad_alloc&) {
        copy = {};
    }
    promise.setValue({false, std::move(copy)});
}

/// Where the two ends of a channel find each other. Never destroyed.
class Exchange {
  public:
    using Streams = std::vector<std::shared_ptr<StreamCore>>;

    static Exchange& instance() {
        static Immortal<Exchange> exchange;
        return *exchange;
    }

    void add(const std::shared_ptr<StreamCore>& stream) {
        annotated::Lock lock(fMutex);
        fStreams[stream->channel()].push_back(stream);
    }

    void remove(const std::shared_ptr<StreamCore>& stream) noexcept {
        annotated::Lock lock(fMutex);
        const auto found = fStreams.find(stream->channel());
        if (found == fStreams.end()) return;
        std::erase(found->second, stream);
        if (found->second.empty()) fStreams.erase(found);
    }

    [[nodiscard]] Streams streams(const std::string& channel) const {
        annotated::Lock lock(fMutex);
        const auto found = fStreams.find(channel);
        return found == fStreams.end() ? Streams() : found->second;
    }

    /// Those that were made in `context`.
    [[nodiscard]] Streams streams(qnutil::contextmgr::QcrID context) const {
        Streams result;
        annotated::Lock lock(fMutex);
        for (const auto& [channel, streams] : fStreams) {
            std::copy_if(streams.begin(), streams.end(), std::back_inserter(result),
                         [&](const auto& stream) { return stream->context() == context; });
        }
        return result;
    }

    void add(const std::shared_ptr<Client>& client) {
        annotated::Lock lock(fMutex);
        fClients.push_back(client);
    }

    void remove(const std::shared_ptr<Client>& client) noexcept {
        annotated::Lock lock(fMutex);
        std::erase(fClients, client);
    }

    /// The client end that gets the blocks of `channel`, empty when there is none: the oldest
    /// of its exact name, else the oldest wildcard that matches.
    [[nodiscard]] std::shared_ptr<Client> clientFor(const std::string& channel) const {
        annotated::Lock lock(fMutex);
        const std::shared_ptr<Client>* wildcard = nullptr;
        for (const auto& client : fClients) {
            if (!client->pattern.matches(channel)) continue;
            if (client->pattern.text() == channel) return client;
            if (wildcard == nullptr) wildcard = &client;
        }
        return wildcard == nullptr ? nullptr : *wildcard;
    }

  private:
    mutable annotated::Mutex fMutex;
    std::unordered_map<std::string, Streams> fStreams GUARDED_BY(fMutex);
    std::vector<std::shared_ptr<Client>> fClients GUARDED_BY(fMutex);  ///< oldest first
};

class ExchangeStream final : public BinaryStream {
  public:
    ExchangeStream(const std::string& channel, bool returnOnFail)
        : fCore(std::make_shared<StreamCore>(channel, returnOnFail)) {
        Exchange::instance().add(fCore);
    }
    ExchangeStream(const ExchangeStream&) = delete;
    ExchangeStream& operator=(const ExchangeStream&) = delete;
    ~ExchangeStream() override {
        Exchange::instance().remove(fCore);
        fCore->end();
    }

  protected:
    Future<SendResult> doSend(DataBuffer&& block) override;
    void doReceive(ReceiveCallback callback) override {
        fCore->setReceiver(callback ? std::make_shared<const ReceiveCallback>(std::move(callback))
                                    : nullptr);
    }

  private:
    const std::shared_ptr<StreamCore> fCore;
};

Replacement<kirohost::BinaryStreamFactory>& replacement() {
    static Immortal<Replacement<kirohost::BinaryStreamFactory>> instance;
    return *instance;
}

}  // namespace

// --- The engine's end --------------------------------------------------------------------------

BinaryStream::~BinaryStream() = default;

std::shared_ptr<BinaryStream> createBinaryStream(const std::string& channel,
                                                 const StreamOptions& options) {
    const auto option = options.find("returnOnFail");
    const bool returnOnFail = option != options.end() && option->second == "true";
    if (const auto factory = replacement().current()) return (*factory)(channel, returnOnFail);
    return std::make_shared<ExchangeStream>(channel, returnOnFail);
}

// --- One block ---------------------------------------------------------------------------------

struct Delivery::Impl {
    std::shared_ptr<Sending> sending;
};

Future<SendResult> ExchangeStream::doSend(DataBuffer&& block) {
    DataBuffer owned(std::move(block));
    const auto client = Exchange::instance().clientFor(fCore->channel());
    if (client == nullptr || fCore->underWay.hasEnded()) {
        if (!fCore->returnOnFail()) owned = {};
        return makeReadyFuture(SendResult{false, std::move(owned)});
    }
    // From here on the handler may destroy this stream: only locals are touched.
    const auto sending = std::make_shared<Sending>(fCore, client, std::move(owned));
    auto future = sending->promise.getFuture();
    Delivery delivery(std::make_unique<Delivery::Impl>(Delivery::Impl{sending}));
    sending->stream->underWay.add(sending);
    client->underWay.add(sending);
    // Had one of the two ended before, nobody would answer; had it answered before the block was in
    // both lists, the block would stay in one.
    if (sending->stream->underWay.hasEnded() || client->underWay.hasEnded()) {
        sending->answer(false);
        sending->leaveLists();
        return future;
    }
    try {
        client->handler(std::move(delivery));
    } catch (...) {
        logCaught("block handler", sending->stream->channel());
        sending->answer(false);  // the handler may have kept the delivery before it threw
    }
    return future;
}

Delivery::Delivery(std::unique_ptr<Impl> impl) noexcept : fImpl(std::move(impl)) {}
Delivery::Delivery(Delivery&&) noexcept = default;
Delivery& Delivery::operator=(Delivery&& other) noexcept {
    Delivery taken(std::move(other));
    fImpl.swap(taken.fImpl);
    return *this;
}
Delivery::~Delivery() {
    if (fImpl != nullptr) fail();
}

const std::string& Delivery::channel() const noexcept {
    KIROWEB_REQUIRE(fImpl != nullptr);
    return fImpl->sending->stream->channel();
}
const DataBuffer& Delivery::block() const noexcept {
    KIROWEB_REQUIRE(fImpl != nullptr);
    return fImpl->sending->block;
}
void Delivery::deliver() {
    KIROWEB_REQUIRE(fImpl != nullptr);
    fImpl->sending->answer(true);
}
void Delivery::fail() {
    KIROWEB_REQUIRE(fImpl != nullptr);
    fImpl->sending->answer(false);
}

// --- The client's end --------------------------------------------------------------------------

struct ClientEnd::Impl : Client {
    using Client::Client;
};

ClientEnd::ClientEnd(std::string channel, BlockHandler handler)
    : fImpl(std::make_shared<Impl>(std::move(channel), std::move(handler))) {
    Exchange::instance().add(std::shared_ptr<Client>(fImpl));
}

ClientEnd::~ClientEnd() {
    Exchange::instance().remove(std::shared_ptr<Client>(fImpl));
    fImpl->underWay.end();
}

void ClientEnd::send(const std::string& channel, const DataBuffer& block) {
    for (const auto& stream : Exchange::instance().streams(channel)) {
        const auto receiver = stream->receiver();
        if (receiver == nullptr) continue;
        auto copy = copyOf(block);
        try {
            (*receiver)(std::move(copy));
        } catch (...) {
            logCaught("receive callback", channel);
        }
    }
}

void endStreamsOf(qnutil::contextmgr::QcrID context) {
    for (const auto& stream : Exchange::instance().streams(context)) stream->end();
}

}  // namespace relay::binary::experimental

kirohost::Scope kirohost::replaceBinaryStream(BinaryStreamFactory factory) {
    return relay::binary::experimental::replacement().install(std::move(factory));
}
