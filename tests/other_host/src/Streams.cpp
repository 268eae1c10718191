// Binary streams. One lock for all lists; nothing foreign is called under it.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "other/Controls.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace relay::binary::experimental {
namespace {

using common::DataBuffer;

DataBuffer copyOf(const DataBuffer& block) {
    if (block.empty()) return {};
    auto* const bytes = static_cast<char*>(std::malloc(std::max<std::size_t>(block.size(), 1)));
    if (bytes == nullptr) throw std::bad_alloc();
    std::memcpy(bytes, block.data(), block.size());
    return {bytes, block.size(), block.size()};
}

/// A stream's end or a client's.
struct End {
    const std::string channel;
    const bool returnOnFail = false;
    const ClientEnd::BlockHandler handler;  ///< a client's only
    ReceiveCallback receive;                ///< a stream's only, guarded by the exchange's mutex
};

struct Sending {
    const std::shared_ptr<End> stream;
    const End* const client;  ///< only to be compared
    const DataBuffer block;   // stays readable until the delivery goes
    Promise<SendResult> promise{};
    std::atomic<bool> isAnswered = false;

    void answer(bool delivered) {
        if (isAnswered.exchange(true)) return;
        const bool givesBack = !delivered && stream->returnOnFail;
        promise.setValue({delivered, givesBack ? copyOf(block) : DataBuffer()});
    }
};

struct Exchange {
    std::mutex mutex;
    std::vector<std::shared_ptr<End>> ends;
    std::vector<std::weak_ptr<Sending>> sendings;
};

Exchange& exchange = *new Exchange;

/// An end's place among the others; when it goes, what the end leaves open is answered.
class Place {
  public:
    explicit Place(End end) : fEnd(std::make_shared<End>(std::move(end))) {
        const std::lock_guard lock(exchange.mutex);
        exchange.ends.push_back(fEnd);
    }
    ~Place() {
        std::unique_lock lock(exchange.mutex);
        std::erase(exchange.ends, fEnd);
        std::erase_if(exchange.sendings, [](const auto& sending) { return sending.expired(); });
        const auto sendings = exchange.sendings;
        lock.unlock();
        for (const auto& weak : sendings) {
            const auto sending = weak.lock();
            if (!sending || (sending->stream != fEnd && sending->client != fEnd.get())) continue;
            sending->answer(false);
        }
    }
    const std::shared_ptr<End>& end() const { return fEnd; }

  private:
    const std::shared_ptr<End> fEnd;
};

}  // namespace

struct Delivery::Impl {
    std::shared_ptr<Sending> sending;
};

Delivery::Delivery(std::unique_ptr<Impl> impl) noexcept : fImpl(std::move(impl)) {}
Delivery::Delivery(Delivery&&) noexcept = default;
Delivery& Delivery::operator=(Delivery&& other) noexcept {
    fImpl.swap(other.fImpl);
    return *this;
}
Delivery::~Delivery() {
    if (fImpl != nullptr) fail();
}
const std::string& Delivery::channel() const noexcept { return fImpl->sending->stream->channel; }
const DataBuffer& Delivery::block() const noexcept { return fImpl->sending->block; }
void Delivery::deliver() { fImpl->sending->answer(true); }
void Delivery::fail() { fImpl->sending->answer(false); }

BinaryStream::~BinaryStream() = default;

namespace {

class Stream final : public BinaryStream {
  public:
    Stream(const std::string& channel, bool returnOnFail)
        : fPlace(End{channel, returnOnFail, nullptr, nullptr}) {}

  private:
    Future<SendResult> doSend(DataBuffer&& block) override {
        std::unique_lock lock(exchange.mutex);
        std::shared_ptr<End> client;
        for (const auto& end : exchange.ends) {
            const bool isMeant =
                end->handler && other::matches(end->channel, fPlace.end()->channel);
            if (client == nullptr && isMeant) client = end;
        }
        const std::shared_ptr<Sending> sending(
            new Sending{fPlace.end(), client.get(), std::move(block)});
        exchange.sendings.push_back(sending);
        lock.unlock();
        auto future = sending->promise.getFuture();  // first: the answer may come at any moment
        Delivery delivery(std::unique_ptr<Delivery::Impl>(new Delivery::Impl{sending}));
        if (client != nullptr) client->handler(std::move(delivery));
        return future;
    }
    void doReceive(ReceiveCallback callback) override {
        const std::lock_guard lock(exchange.mutex);
        fPlace.end()->receive = std::move(callback);
    }

    const Place fPlace;
};

}  // namespace

std::shared_ptr<BinaryStream> createBinaryStream(const std::string& channel,
                                                 const StreamOptions& options) {
    const auto option = options.find("returnOnFail");
    return std::make_shared<Stream>(channel, option != options.end() && option->second == "true");
}

struct ClientEnd::Impl {
    const Place place;
};

ClientEnd::ClientEnd(std::string channel, BlockHandler handler)
    : fImpl(new Impl{Place(End{std::move(channel), false, std::move(handler), nullptr})}) {}
ClientEnd::~ClientEnd() = default;

void ClientEnd::send(const std::string& channel, const DataBuffer& block) {
    std::vector<ReceiveCallback> receivers;
    std::unique_lock lock(exchange.mutex);
    for (const auto& end : exchange.ends) {
        if (end->channel == channel && end->receive) receivers.push_back(end->receive);
    }
    lock.unlock();
    for (const auto& receive : receivers) receive(copyOf(block));
}

}  // namespace relay::binary::experimental
