#include <chrono>
#include <cstring>
#include <future>
#include <semaphore>
#include <string>
#include <vector>

#include "Blocks.hpp"
#include "Figures.hpp"
#include "Stage.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"
#include "kiro/web/binary/BinaryDataSender.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"
#include "relay/Future.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

namespace bench {

namespace {

using std::chrono::steady_clock;

constexpr std::size_t kBlockSize = std::size_t{1} << 20U;

/// The same block over and over, to a client that only receives, each one whole.
void sendRaw(benchmark::State& state, std::size_t count) {
    const Listener listener;
    const Socket client(listener.port());
    const auto server = listener.accept();
    const std::string block(kBlockSize, 'x');
    for (auto _ : state) {
        const auto start = steady_clock::now();
        auto read = std::async(std::launch::async, [&client, count] {
            std::vector<char> buffer(kBlockSize);
            for (std::size_t i = 0; i < count; ++i) {
                std::size_t got = 0;
                while (got < kBlockSize) {
                    got += client.receive(buffer.data() + got, kBlockSize - got);
                }
            }
        });
        for (std::size_t i = 0; i < count; ++i) server.send(block);
        read.get();
        setTimeEach(state, steady_clock::now() - start, count);
    }
}

void sendThroughGateway(benchmark::State& state, std::size_t count) {
    const Stage stage;
    auto client = stage.join(kBlockChannel);
    for (auto _ : state) {
        const auto start = steady_clock::now();
        auto read = std::async(std::launch::async, [&client, count] { readBlocks(client, count); });
        sendBlocks(count);
        read.get();
        setTimeEach(state, steady_clock::now() - start, count);
    }
}

}  // namespace

void readBlocks(Client& client, std::size_t count) {
    for (std::size_t blocks = 0; blocks < count;) {
        const auto frame = client.read();
        if (frame.isText) continue;
        std::uint32_t transfer = 0;
        std::memcpy(&transfer, frame.payload.data() + 4, sizeof transfer);
        client.sendText(R"({"t":"block","transfer":)" + std::to_string(transfer) +
                        R"(,"ok":true})");
        ++blocks;
    }
}

void sendBlocks(std::size_t count) {
    namespace binary = kiro::web::binary;
    constexpr std::ptrdiff_t kUnderWay = 16;
    std::counting_semaphore<kUnderWay> room(kUnderWay);
    const auto sender = binary::createBinaryDataSender(kBlockChannel);
    const std::string block(kBlockSize, 'x');
    for (std::size_t i = 0; i < count; ++i) {
        room.acquire();
        sender->send(binary::BinaryDataPayload::createID(), block.data(), block.size())
            .then([&room](const auto& /*result*/) { room.release(); });
    }
    for (std::ptrdiff_t i = 0; i < kUnderWay; ++i) room.acquire();
    binary::BinaryStreamLifeCycle::destroyBinaryStream(kBlockChannel);
}

Figure gatewayBlockFigure(const Effort& effort) {
    const std::size_t count = effort.quick ? 20 : 500;
    return {"1 MiB blocks",
            "ns/block",
            [count](benchmark::State& state) { sendRaw(state, count); },
            [count](benchmark::State& state) { sendThroughGateway(state, count); },
            0.85,
            Comparison::kRate,
            true};
}

}  // namespace bench
