#include <Poco/Base64Encoder.h>
#include <Poco/MemoryStream.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Figure.hpp"
#include "ValveService.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"
#include "kiro/web/binary/BinaryDataSender.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace bench {

namespace {

using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;

constexpr std::size_t kBlockSize = std::size_t{1} << 20U;
/// Blocks that the client has not answered yet.
constexpr std::size_t kUnderWay = 4;

struct Free {
    void operator()(char* bytes) const noexcept { std::free(bytes); }
};

using Bytes = std::unique_ptr<char, Free>;

Bytes allocate(std::size_t size) { return Bytes(static_cast<char*>(std::malloc(size))); }

/// The client's side: it answers for the oldest block when a new one comes.
class LateClient {
  public:
    ~LateClient() {
        for (auto& delivery : fUnderWay) answer(delivery);
    }
    void take(Delivery delivery) {
        auto& oldest = fUnderWay[fNext++ % kUnderWay];
        answer(oldest);
        oldest.emplace(std::move(delivery));
    }

  private:
    static void answer(std::optional<Delivery>& delivery) {
        if (delivery) delivery->deliver();
    }
    std::array<std::optional<Delivery>, kUnderWay> fUnderWay;
    std::size_t fNext = 0;
};

/// The engine's block stays, and the last few copies of it are held.
void copyByHand(benchmark::State& state) {
    const std::vector<char> block(kBlockSize + 8, 'x');
    std::array<Bytes, kUnderWay> underWay;
    std::size_t next = 0;
    for (auto _ : state) {
        auto copy = allocate(block.size());
        std::memcpy(copy.get(), block.data(), block.size());
        benchmark::DoNotOptimize(copy.get());
        benchmark::ClobberMemory();
        underWay[next++ % kUnderWay] = std::move(copy);
    }
}

/// Over the host's stream to a client that answers late: the payload keeps its block until then.
void sendBlock(benchmark::State& state) {
    namespace binary = kiro::web::binary;
    const char* const channel = "/bench/blocks";
    {
        LateClient client;
        const ClientEnd end(channel,
                            [&client](Delivery delivery) { client.take(std::move(delivery)); });
        const auto sender = binary::createBinaryDataSender(channel);
        binary::BinaryDataPayload payload;
        const std::vector<char> data(kBlockSize, 'x');
        payload.addDataToPayloadInternal(data.data(), data.size());
        for (auto _ : state) payload.sendUsing(sender, channel);
    }
    binary::BinaryStreamLifeCycle::destroyBinaryStream(channel);
}

/// What nobody can leave out: the encoder's text in a buffer of its length, and a copy of it.
void encodeByHand(benchmark::State& state) {
    const std::vector<char> data(kBlockSize, 'x');
    const std::size_t length = (kBlockSize + 2) / 3 * 4;
    for (auto _ : state) {
        const auto text = allocate(length);
        Poco::MemoryOutputStream stream(text.get(), static_cast<std::streamsize>(length));
        Poco::Base64Encoder encoder(stream);
        encoder.rdbuf()->setLineLength(0);
        encoder.write(data.data(), static_cast<std::streamsize>(data.size()));
        encoder.close();
        const auto copy = allocate(length);
        std::memcpy(copy.get(), text.get(), length);
        benchmark::DoNotOptimize(copy.get());
        benchmark::ClobberMemory();
    }
}

/// A block without a stream, up to the message service. The engine has built it before.
void publishBlock(benchmark::State& state) {
    auto& valve = ValveService::install();
    const ValveService::Drain drop = [](const auto& message) {
        benchmark::DoNotOptimize(message.json);
        benchmark::ClobberMemory();
    };
    static_cast<void>(kiro::web::PubSubFactory::pubsubInstance());
    valve.setDrain(&drop);
    const std::vector<char> data(kBlockSize, 'x');
    for (auto _ : state) {
        state.PauseTiming();
        kiro::web::binary::BinaryDataPayload payload;
        payload.addDataToPayloadInternal(data.data(), data.size());
        state.ResumeTiming();
        payload.sendUsing(nullptr, "/bench/fallback");
    }
    valve.setDrain(nullptr);
}

}  // namespace

std::vector<Figure> blockFigures() {
    return {{"send 1 MiB block", "ns", copyByHand, sendBlock, 1.2},
            {"fallback 1 MiB", "ns", encodeByHand, publishBlock, 1.3}};
}

}  // namespace bench
