#include <condition_variable>
#include <cstddef>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "../Program.hpp"
#include "BeastPeer.hpp"
#include "Figures.hpp"
#include "TokenPage.hpp"

namespace bench {

namespace {

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

void flush(benchmark::State& state, std::size_t count, double quantile) {
    pin();
    const Stage stage;
    TokenPage page(stage.connect(TokenPage::kCommands));
    page.begin(count);
    timeTrips(state, count, quantile, [&page] { page.flush(); });
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
