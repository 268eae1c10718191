// The conformance suite's adapter for this host.

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

#include "HostAdapter.hpp"
#include "other/Controls.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace conformance {
namespace {

using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;

struct Ear final : relay::Transport {
    explicit Ear(ClientCallback theCallback) : callback(std::move(theCallback)) {}
    void messagePublished(const relay::Publication& message) override {
        if (callback) callback(message.channel(), *message.shared());
    }
    const ClientCallback callback;
};

struct Attached final : ClientListener {
    explicit Attached(ClientCallback callback)
        : link(relay::getRelay().attach(std::make_shared<Ear>(std::move(callback)))) {}
    const std::unique_ptr<relay::TransportLink> link;
};

class Client final : public StreamClient {
  public:
    explicit Client(const std::string& channel)
        : fChannel(channel), fEnd(channel, [this](Delivery delivery) {
              const std::lock_guard lock(fMutex);
              fDeliveries.push_back(std::move(delivery));
              fArrived.notify_all();
          }) {}

    void awaitBlocks(std::size_t count) override {
        std::unique_lock lock(fMutex);
        fArrived.wait(lock, [&] { return fDeliveries.size() >= count; });
    }
    std::string bytes(std::size_t index) override {
        const std::lock_guard lock(fMutex);
        const auto& block = fDeliveries.at(index).block();
        return {block.data(), block.size()};
    }
    void answer(std::size_t index, bool delivered) override {
        std::unique_lock lock(fMutex);
        auto delivery = std::move(fDeliveries.at(index));
        fDeliveries.erase(fDeliveries.begin() + static_cast<std::ptrdiff_t>(index));
        lock.unlock();
        delivered ? delivery.deliver() : delivery.fail();
    }
    void send(const std::string& bytes) override {
        auto* const data = static_cast<char*>(std::malloc(bytes.size()));
        std::memcpy(data, bytes.data(), bytes.size());
        fEnd.send(fChannel, {data, bytes.size(), bytes.size()});
    }

  private:
    const std::string fChannel;
    std::mutex fMutex;
    std::condition_variable fArrived;
    /// Never destroyed: what is open when the end goes is the end's to answer.
    std::deque<Delivery>& fDeliveries = *new std::deque<Delivery>;
    ClientEnd fEnd;
};

}  // namespace

void adoptSignalThread() { other::adoptSignalThread(); }

void publishAsClient(const std::string& channel, const std::string& text) {
    Attached(nullptr).link->deliver(channel, std::make_shared<const std::string>(text), nullptr);
}

std::unique_ptr<ClientListener> listenAsClient(ClientCallback callback) {
    return std::make_unique<Attached>(std::move(callback));
}

std::unique_ptr<StreamClient> openStreamClient(const std::string& channel) {
    return std::make_unique<Client>(channel);
}

void apply(const Settings& settings) {
    other::settings() = {settings.binaryChannelForCommands, settings.binaryChannelFallback,
                         settings.warnAboutFallback,        settings.drawnowTimeoutSeconds,
                         settings.drawnowTimeoutLogging,    settings.atOstrel,
                         settings.drawnowTimeoutHook};
}

std::vector<std::string> warningsOf(const std::function<void()>& body) {
    std::vector<std::string> warnings;
    other::observers().warning = [&](const std::string& component, const std::string& key) {
        warnings.push_back(component + ":" + key);
    };
    body();
    other::observers().warning = nullptr;
    return warnings;
}

void setDiagnosticLevel(const std::string& /*logger: all*/, int level) {
    other::setDiagnosticLevel(level);
}

std::vector<std::string> diagnosticsOf(const std::string& logger,
                                       const std::function<void()>& body) {
    std::vector<std::string> texts;
    other::observers().diagnostic = [&](const std::string& name, const std::string& text) {
        if (name == logger) texts.push_back(text);
    };
    body();
    other::observers().diagnostic = nullptr;
    return texts;
}

void takeMemorySnapshot() { other::takeMemorySnapshot(); }

void showAssertions() { other::observers().showsAssertions = true; }

}  // namespace conformance
