#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <future>
#include <string>
#include <string_view>
#include <utility>

#include "../SampleCommand.hpp"
#include "BeastPeer.hpp"
#include "Figures.hpp"
#include "Stage.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"

namespace bench {

namespace {

const std::string kCommands = "/bench/commands";
const std::string kTexts = "/bench/texts";

/// From the first text until the client has read the last one.
template <typename Send>
void timeTexts(benchmark::State& state, Client& client, bool isGateway, std::size_t count,
               const Send& send) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        auto read = std::async(std::launch::async, [&client, count, isGateway] {
            client.readRecords(count, isGateway);
        });
        send();
        read.get();
        setTimeEach(state, std::chrono::steady_clock::now() - start, count);
    }
}

/// As many texts in one frame as the gateway takes.
class Batch {
  public:
    explicit Batch(BeastPeer& peer) : fPeer(peer) {}
    void add(std::string_view text) {
        static constexpr std::size_t kFull = std::size_t{64} << 10U;
        fTexts += '\x1e';
        fTexts += text;
        if (fTexts.size() >= kFull) write();
    }
    void write() {
        if (!fTexts.empty()) fPeer.write(fTexts);
        fTexts.clear();
    }

  private:
    BeastPeer& fPeer;
    std::string fTexts;
};

/// One thread that builds, serialises and writes.
void sendCommandsByHand(benchmark::State& state, std::size_t count) {
    BeastPeer peer;
    auto client = peer.takeClient();
    const SampleCommand command;
    timeTexts(state, client, false, count, [&] {
        Batch batch(peer);
        for (std::size_t i = 0; i < count; ++i) {
            boost::json::object object;
            fill(object, command);
            append(object, "cmd", "setProperties");
            batch.add(boost::json::serialize(object));
        }
        batch.write();
    });
}

void sendCommands(benchmark::State& state, std::size_t count) {
    Stage stage;
    auto client = stage.join(kCommands);
    kiro::web::BootstrappingCommandSender sender(kCommands);
    Stage::announce(client, kCommands);
    sender.sendCommand("first", {});  // from the next one on it sends directly
    client.read();
    const SampleCommand command;
    timeTexts(state, client, true, count, [&] {
        for (std::size_t i = 0; i < count; ++i) {
            kiro::web::JSONPayload payload;
            fill(payload, command);
            sender.sendCommand("setProperties", std::move(payload));
        }
    });
}

void sendTextsByHand(benchmark::State& state, std::size_t count) {
    BeastPeer peer;
    auto client = peer.takeClient();
    const auto text = sampleText();
    timeTexts(state, client, false, count, [&] {
        Batch batch(peer);
        for (std::size_t i = 0; i < count; ++i) batch.add(text);
        batch.write();
    });
}

void sendTexts(benchmark::State& state, std::size_t count) {
    const Stage stage;
    auto client = stage.join(kTexts);
    const auto pubsub = kiro::web::PubSubFactory::pubsubInstance();
    kiro::web::StringPayload payload(sampleText());
    timeTexts(state, client, true, count, [&] {
        for (std::size_t i = 0; i < count; ++i) pubsub->publish(kTexts, payload);
    });
}

}  // namespace

std::string sampleText() {
    boost::json::object object;
    fill(object, SampleCommand{});
    append(object, "cmd", "setProperties");
    return boost::json::serialize(object);
}

std::vector<Figure> textFigures(const Effort& effort) {
    // Fewer bytes than may wait for a page: the figure is about speed, not about its end.
    const std::size_t count = effort.quick ? 1'000 : 200'000;
    const auto with = [count](void (*body)(benchmark::State&, std::size_t)) {
        return [body, count](benchmark::State& state) { body(state, count); };
    };
    return {{"commands", "ns/command", with(sendCommandsByHand), with(sendCommands), 0.85,
             Comparison::kRate, true},
            {"ready texts", "ns/text", with(sendTextsByHand), with(sendTexts), 0.6,
             Comparison::kRate, true}};
}

}  // namespace bench
