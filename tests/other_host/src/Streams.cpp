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

struct Sending {
    const std::string channel;
    const void* const stream;
    const void* const client;
    const bool returnOnFail;
    const DataBuffer block;  // stays readable until the delivery goes
    Promise<SendResult> promise{};
    std::atomic<bool> isAnswered = false;

    void answer(bool delivered) {
        if (isAnswered.exchange(true)) return;
        const bool givesBack = !delivered && returnOnFail;
        promise.setValue({delivered, givesBack ? copyOf(block) : DataBuffer()});
    }
};

class Stream;

struct Exchange {
    static Exchange& instance() {
        static Exchange& exchange = *new Exchange;
        return exchange;
    }
    /// Answers what an end leaves open.
    void end(const void* gone) {
        std::unique_lock lock(mutex);
        std::erase_if(sendings, [](const auto& sending) { return sending.expired(); });
        const auto all = sendings;
        lock.unlock();
        for (const auto& weak : all) {
            const auto sending = weak.lock();
            if (!sending || (sending->stream != gone && sending->client != gone)) continue;
            sending->answer(false);
        }
    }

    std::mutex mutex;
    std::vector<Stream*> streams;
    std::vector<std::pair<std::string, std::shared_ptr<const ClientEnd::BlockHandler>>> clients;
    std::vector<std::weak_ptr<Sending>> sendings;
};

class Stream final : public BinaryStream {
  public:
    Stream(std::string channel, bool returnOnFail)
        : fChannel(std::move(channel)), fReturnOnFail(returnOnFail) {
        auto& exchange = Exchange::instance();
        const std::lock_guard lock(exchange.mutex);
        exchange.streams.push_back(this);
    }
    ~Stream() override {
        auto& exchange = Exchange::instance();
        {
            const std::lock_guard lock(exchange.mutex);
            std::erase(exchange.streams, this);
        }
        exchange.end(this);
    }

    const std::string& channel() const { return fChannel; }
    std::shared_ptr<ReceiveCallback> fReceive;  ///< guarded by the exchange's mutex

  private:
    Future<SendResult> doSend(DataBuffer&& block) override {
        auto& exchange = Exchange::instance();
        std::shared_ptr<const ClientEnd::BlockHandler> handler;
        std::shared_ptr<Sending> sending;
        {
            const std::lock_guard lock(exchange.mutex);
            for (const auto& [pattern, candidate] : exchange.clients) {
                if (handler == nullptr && other::matches(pattern, fChannel)) handler = candidate;
            }
            sending.reset(
                new Sending{fChannel, this, handler.get(), fReturnOnFail, std::move(block)});
            exchange.sendings.push_back(sending);
        }
        auto future = sending->promise.getFuture();
        Delivery delivery = makeDelivery(std::move(sending));
        if (handler != nullptr) (*handler)(std::move(delivery));
        return future;
    }
    void doReceive(ReceiveCallback callback) override {
        const std::lock_guard lock(Exchange::instance().mutex);
        fReceive = std::make_shared<ReceiveCallback>(std::move(callback));
    }
    static Delivery makeDelivery(std::shared_ptr<Sending> sending);

    const std::string fChannel;
    const bool fReturnOnFail;
};

}  // namespace

struct Delivery::Impl {
    std::shared_ptr<Sending> sending;
};

Delivery Stream::makeDelivery(std::shared_ptr<Sending> sending) {
    return Delivery(std::make_unique<Delivery::Impl>(Delivery::Impl{std::move(sending)}));
}

Delivery::Delivery(std::unique_ptr<Impl> impl) noexcept : fImpl(std::move(impl)) {}
Delivery::Delivery(Delivery&&) noexcept = default;
Delivery& Delivery::operator=(Delivery&& other) noexcept {
    fImpl.swap(other.fImpl);
    return *this;
}
Delivery::~Delivery() {
    if (fImpl != nullptr) fail();
}
const std::string& Delivery::channel() const noexcept { return fImpl->sending->channel; }
const DataBuffer& Delivery::block() const noexcept { return fImpl->sending->block; }
void Delivery::deliver() { fImpl->sending->answer(true); }
void Delivery::fail() { fImpl->sending->answer(false); }

BinaryStream::~BinaryStream() = default;

std::shared_ptr<BinaryStream> createBinaryStream(const std::string& channel,
                                                 const StreamOptions& options) {
    const auto option = options.find("returnOnFail");
    return std::make_shared<Stream>(channel, option != options.end() && option->second == "true");
}

struct ClientEnd::Impl {
    std::shared_ptr<const BlockHandler> handler;
};

ClientEnd::ClientEnd(std::string channel, BlockHandler handler)
    : fImpl(new Impl{std::make_shared<const BlockHandler>(std::move(handler))}) {
    auto& exchange = Exchange::instance();
    const std::lock_guard lock(exchange.mutex);
    exchange.clients.emplace_back(std::move(channel), fImpl->handler);
}

ClientEnd::~ClientEnd() {
    auto& exchange = Exchange::instance();
    {
        const std::lock_guard lock(exchange.mutex);
        std::erase_if(exchange.clients,
                      [this](const auto& client) { return client.second == fImpl->handler; });
    }
    exchange.end(fImpl->handler.get());
}

void ClientEnd::send(const std::string& channel, const DataBuffer& block) {
    auto& exchange = Exchange::instance();
    std::vector<std::shared_ptr<ReceiveCallback>> receivers;
    {
        const std::lock_guard lock(exchange.mutex);
        for (const auto* const stream : exchange.streams) {
            if (stream->channel() == channel) receivers.push_back(stream->fReceive);
        }
    }
    for (const auto& receiver : receivers) {
        if (receiver != nullptr && *receiver) (*receiver)(copyOf(block));
    }
}

}  // namespace relay::binary::experimental
