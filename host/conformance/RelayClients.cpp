// The part of an adapter that plays the clients, in this process: for every host that lets
// transports and client ends in, as the gateway needs it. Such a host's adapter is compiled with
// it.

#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>
#include <utility>

#include "HostAdapter.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace conformance {
namespace {

using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;
using relay::common::DataBuffer;

class Ear final : public relay::Transport {
  public:
    explicit Ear(ClientCallback callback) : fCallback(std::move(callback)) {}
    void messagePublished(const relay::Publication& message) override {
        if (fCallback) fCallback(message.channel(), std::string(message.text()));
    }

  private:
    const ClientCallback fCallback;
};

class RelayListener final : public ClientListener {
  public:
    explicit RelayListener(ClientCallback callback)
        : fLink(relay::getRelay().attach(std::make_shared<Ear>(std::move(callback)))) {}

  private:
    const std::unique_ptr<relay::TransportLink> fLink;
};

class RelayStreamClient final : public StreamClient {
  public:
    explicit RelayStreamClient(const std::string& channel)
        : fChannel(channel), fEnd(channel, [kept = fKept](Delivery delivery) {
              std::lock_guard lock(kept->mutex);
              kept->deliveries.push_back(std::move(delivery));
              kept->arrived.notify_all();
          }) {}

    void awaitBlocks(std::size_t count) override {
        std::unique_lock lock(fKept->mutex);
        while (fKept->deliveries.size() < count) fKept->arrived.wait(lock);
    }

    std::string bytes(std::size_t index) override {
        std::lock_guard lock(fKept->mutex);
        const DataBuffer& block = fKept->deliveries.at(index).block();
        return {block.data(), block.size()};
    }

    void answer(std::size_t index, bool delivered) override {
        auto delivery = take(index);
        if (delivered) {
            delivery.deliver();
        } else {
            delivery.fail();
        }
    }

    void send(const std::string& bytes) override {
        auto* data = static_cast<char*>(std::malloc(bytes.size()));
        if (data == nullptr) throw std::bad_alloc();
        bytes.copy(data, bytes.size());
        fEnd.send(fChannel, DataBuffer(data, bytes.size(), bytes.size()));
    }

  private:
    /// Shared with the end's handler, which may still run when this object has gone.
    struct Kept {
        std::mutex mutex;
        std::condition_variable arrived;
        std::deque<Delivery> deliveries;
    };

    Delivery take(std::size_t index) {
        std::lock_guard lock(fKept->mutex);
        Delivery delivery = std::move(fKept->deliveries.at(index));
        fKept->deliveries.erase(fKept->deliveries.begin() + static_cast<std::ptrdiff_t>(index));
        return delivery;
    }

    const std::string fChannel;
    const std::shared_ptr<Kept> fKept = std::make_shared<Kept>();
    ClientEnd fEnd;
};

}  // namespace

void publishAsClient(const std::string& channel, const std::string& text) {
    const auto link = relay::getRelay().attach(std::make_shared<Ear>(nullptr));
    link->deliver(channel, std::make_shared<const std::string>(text), nullptr);
}

std::unique_ptr<ClientListener> listenAsClient(ClientCallback callback) {
    return std::make_unique<RelayListener>(std::move(callback));
}

std::unique_ptr<StreamClient> openStreamClient(const std::string& channel) {
    return std::make_unique<RelayStreamClient>(channel);
}

}  // namespace conformance
