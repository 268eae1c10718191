#include "relay/binary/experimental/BinaryStream.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ChannelPattern.hpp"
#include "RelayLog.hpp"
#include "Replacement.hpp"
#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace relay::binary::experimental {

using common::DataBuffer;

namespace {

/// One client end, as the exchange knows it.
struct Client {
    ChannelPattern pattern;
    ClientEnd::BlockHandler handler;
};

/// Throws std::bad_alloc.
DataBuffer copyOf(const DataBuffer& block) {
    if (block.empty()) return {};
    const std::size_t capacity = std::max<std::size_t>(block.size(), 1);
    auto* bytes = static_cast<char*>(std::malloc(capacity));
    if (bytes == nullptr) throw std::bad_alloc();
    std::memcpy(bytes, block.data(), block.size());
    return {bytes, capacity, block.size()};
}

class StreamCore;

/// A block under way: sent, not yet answered.
struct Sending {
    Sending(std::shared_ptr<StreamCore> theStream, DataBuffer&& theBlock) noexcept
        : stream(std::move(theStream)), block(std::move(theBlock)) {}

    /// Completes the future unless it has been answered; gives the block back or frees it.
    void answer(bool delivered);

    const std::shared_ptr<StreamCore> stream;
    std::uint64_t number = 0;
    DataBuffer block;
    Promise<SendResult> promise;
};

/// What the engine's end, its sends under way and the client's end share.
///
/// A send is answered by whoever takes it out of the stream's list: its delivery or the stream's
/// end. That makes it once, and lets the answer be given with no lock held.
class StreamCore {
  public:
    StreamCore(std::string channel, bool returnOnFail)
        : fChannel(std::move(channel)), fReturnOnFail(returnOnFail) {}

    [[nodiscard]] const std::string& channel() const noexcept { return fChannel; }
    [[nodiscard]] bool returnOnFail() const noexcept { return fReturnOnFail; }

    void add(const std::shared_ptr<Sending>& sending) {
        annotated::Lock lock(fMutex);
        sending->number = fNextNumber;
        fUnderWay.emplace(fNextNumber, sending);
        ++fNextNumber;
    }

    /// Answers whether `sending` was still under way; it is not any more.
    [[nodiscard]] bool take(const Sending& sending) {
        annotated::Lock lock(fMutex);
        return fUnderWay.erase(sending.number) > 0;
    }

    void setReceiver(std::shared_ptr<const ReceiveCallback> callback) {
        annotated::Lock lock(fMutex);
        fReceiver.swap(callback);
    }

    [[nodiscard]] std::shared_ptr<const ReceiveCallback> receiver() const {
        annotated::Lock lock(fMutex);
        return fReceiver;
    }

    /// Answers what is under way, oldest first, and receives no more.
    void end() noexcept;

  private:
    const std::string fChannel;
    const bool fReturnOnFail;
    mutable annotated::Mutex fMutex;
    std::uint64_t fNextNumber GUARDED_BY(fMutex) = 1;
    std::map<std::uint64_t, std::shared_ptr<Sending>> fUnderWay GUARDED_BY(fMutex);
    std::shared_ptr<const ReceiveCallback> fReceiver GUARDED_BY(fMutex);
};

void Sending::answer(bool delivered) {
    if (!stream->take(*this)) return;
    DataBuffer givenBack(std::move(block));
    if (delivered || !stream->returnOnFail()) givenBack = {};
    promise.setValue({delivered, std::move(givenBack)});
}

/// Where the two ends of a channel find each other. Never destroyed.
class Exchange {
  public:
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

    [[nodiscard]] std::vector<std::shared_ptr<StreamCore>> streams(
        const std::string& channel) const {
        annotated::Lock lock(fMutex);
        const auto found = fStreams.find(channel);
        return found == fStreams.end() ? std::vector<std::shared_ptr<StreamCore>>() : found->second;
    }

    void add(const std::shared_ptr<const Client>& client) {
        annotated::Lock lock(fMutex);
        fClients.push_back(client);
    }

    void remove(const std::shared_ptr<const Client>& client) noexcept {
        annotated::Lock lock(fMutex);
        std::erase(fClients, client);
    }

    /// The client end that gets the blocks of `channel`, empty when there is none: the oldest
    /// of its exact name, else the oldest wildcard that matches.
    [[nodiscard]] std::shared_ptr<const Client> clientFor(const std::string& channel) const {
        annotated::Lock lock(fMutex);
        const std::shared_ptr<const Client>* wildcard = nullptr;
        for (const auto& client : fClients) {
            if (!client->pattern.matches(channel)) continue;
            if (client->pattern.text() == channel) return client;
            if (wildcard == nullptr) wildcard = &client;
        }
        return wildcard == nullptr ? nullptr : *wildcard;
    }

  private:
    mutable annotated::Mutex fMutex;
    std::unordered_map<std::string, std::vector<std::shared_ptr<StreamCore>>> fStreams
        GUARDED_BY(fMutex);
    std::vector<std::shared_ptr<const Client>> fClients GUARDED_BY(fMutex);  ///< oldest first
};

void StreamCore::end() noexcept {
    std::map<std::uint64_t, std::shared_ptr<Sending>> unanswered;
    std::shared_ptr<const ReceiveCallback> receiver;  // released outside the lock: it is foreign
    {
        annotated::Lock lock(fMutex);
        unanswered.swap(fUnderWay);
        receiver.swap(fReceiver);
    }
    for (const auto& [number, sending] : unanswered) {
        // The client may be reading the block of a delivery that it kept, so the engine is given
        // a copy. Without the memory for one the block is lost to it, which it sees.
        DataBuffer copy;
        try {
            if (fReturnOnFail) copy = copyOf(sending->block);
        } catch (const std::bad_alloc&) {
            copy = {};
        }
        sending->promise.setValue({false, std::move(copy)});
    }
}

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
    if (client == nullptr) {
        if (!fCore->returnOnFail()) owned = {};
        return makeReadyFuture(SendResult{false, std::move(owned)});
    }
    // From here on the handler may destroy this stream: only locals are touched.
    const auto sending = std::make_shared<Sending>(fCore, std::move(owned));
    auto future = sending->promise.getFuture();
    Delivery delivery(std::make_unique<Delivery::Impl>(Delivery::Impl{sending}));
    sending->stream->add(sending);
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

const std::string& Delivery::channel() const noexcept { return fImpl->sending->stream->channel(); }
const DataBuffer& Delivery::block() const noexcept { return fImpl->sending->block; }
void Delivery::deliver() { fImpl->sending->answer(true); }
void Delivery::fail() { fImpl->sending->answer(false); }

// --- The client's end --------------------------------------------------------------------------

struct ClientEnd::Impl : Client {};

ClientEnd::ClientEnd(std::string channel, BlockHandler handler)
    : fImpl(
          std::make_shared<Impl>(Impl{{ChannelPattern(std::move(channel)), std::move(handler)}})) {
    Exchange::instance().add(std::shared_ptr<const Client>(fImpl));
}

ClientEnd::~ClientEnd() { Exchange::instance().remove(std::shared_ptr<const Client>(fImpl)); }

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

}  // namespace relay::binary::experimental

kirohost::Scope kirohost::replaceBinaryStream(BinaryStreamFactory factory) {
    return relay::binary::experimental::replacement().install(std::move(factory));
}
