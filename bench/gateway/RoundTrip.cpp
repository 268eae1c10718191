#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "../Program.hpp"
#include "BeastPeer.hpp"
#include "Figures.hpp"
#include "Stage.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/WebBlockingOperation.hpp"

namespace bench {

namespace {

using std::chrono::steady_clock;

const std::string kCommands = "/bench/flush";
const std::string kReturns = "/bench/flush/returned";

/// Sets the sample: what `quantile` of the round trips stay below, in nanoseconds.
template <typename Trip>
void timeTrips(benchmark::State& state, std::size_t count, double quantile, const Trip& trip) {
    std::vector<double> times(count);
    for (auto _ : state) {
        for (auto& time : times) {
            const auto start = steady_clock::now();
            trip();
            time = static_cast<double>((steady_clock::now() - start).count());
        }
        state.SetIterationTime(1.0);
    }
    const auto at = times.begin() + static_cast<std::ptrdiff_t>(quantile * double(count - 1));
    std::nth_element(times.begin(), at, times.end());
    state.counters[kValue] = *at;
}

void pin() {
    if (!pinToOneProcessor()) throw std::runtime_error("cannot be pinned to one processor");
}

/// What comes for the engine, which sleeps meanwhile.
class Bell {
  public:
    void ring() {
        {
            const std::lock_guard lock(fMutex);
            fHasRung = true;
        }
        fChanged.notify_one();
    }
    void wait() {
        std::unique_lock lock(fMutex);
        while (!fHasRung) fChanged.wait(lock);
        fHasRung = false;
    }

  private:
    std::mutex fMutex;
    std::condition_variable fChanged;
    bool fHasRung = false;
};

/// The engine's thread writes, a client's thread answers, a reader's thread wakes the engine.
void echo(benchmark::State& state, std::size_t count, double quantile) {
    pin();
    BeastPeer peer;
    auto client = peer.takeClient();
    Bell bell;
    auto answered = std::async(std::launch::async, [&client, count] {
        for (std::size_t i = 0; i < count; ++i) client.sendText(client.read().payload);
    });
    auto read = std::async(std::launch::async, [&peer, &bell, count] {
        for (std::size_t i = 0; i < count; ++i) {
            benchmark::DoNotOptimize(peer.read());
            bell.ring();
        }
    });
    const std::string text(118, 'x');  // as long as a token's command
    timeTrips(state, count, quantile, [&] {
        peer.write(text);
        bell.wait();
    });
    answered.get();
    read.get();
}

/// Finds each token without reading the whole command, and returns it.
void returnTokens(Client& client, std::size_t count) {
    constexpr std::string_view kBegin = R"("ACT":")";
    for (std::size_t i = 0; i < count; ++i) {
        const auto batch = client.read().payload;
        const auto begin = batch.find(kBegin) + kBegin.size();
        const auto token = batch.substr(begin, batch.find('"', begin) - begin);
        client.sendText(R"({"t":"publish","channel":")" + kReturns + R"(","text":"{\"ACT\":\")" +
                        std::string(token) + R"(\"}"})");
    }
}

/// As an engine flushes: the token goes out behind the commands, and the wait is one that a
/// reconnection or a new view of the client would end.
void flush(benchmark::State& state, std::size_t count, double quantile) {
    pin();
    const Stage stage;
    auto client = stage.join(kCommands);
    const auto sender = std::make_shared<kiro::web::BootstrappingCommandSender>(kCommands);
    Stage::announce(client, kCommands);
    sender->sendCommand("first", {});  // from the next one on it sends directly
    client.read();
    kiro::web::PubSubACTRequestor requestor(sender, kReturns, "bench", "bench", false);
    const auto status = std::make_shared<kiro::web::ConnectionStatus>("/bench/flush/reconnect",
                                                                      "/bench/flush/newView");
    auto returned =
        std::async(std::launch::async, [&client, count] { returnTokens(client, count); });
    timeTrips(state, count, quantile, [&] {
        requestor.sendACT();
        kiro::web::WebBlockingOperation::waitOrThrow(
            "flush", [&requestor] { return !requestor.isACTPending(); }, status, {});
    });
    returned.get();
}

Figure roundTripFigure(const char* name, double quantile, double target, std::size_t count) {
    return {name,
            "ns",
            [=](benchmark::State& state) { echo(state, count, quantile); },
            [=](benchmark::State& state) { flush(state, count, quantile); },
            target,
            Comparison::kCost,
            true};
}

}  // namespace

std::vector<Figure> roundTripFigures(const Effort& effort) {
    const std::size_t count = effort.quick ? 100 : 10'000;
    return {roundTripFigure("round trip, p50", 0.5, 1.7, count),
            roundTripFigure("round trip, p99", 0.99, 2.1, count)};
}

}  // namespace bench
