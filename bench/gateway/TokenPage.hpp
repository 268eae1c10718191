#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Figures.hpp"
#include "Stage.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"

namespace bench {

/// A page that returns tokens, and the engine's side of it.
class TokenPage {
  public:
    inline static const std::string kCommands = "/bench/flush";

    /// REQUIRES: `page` has been greeted and hears the commands' channel.
    explicit TokenPage(Socket page);
    /// Waits until the page has returned all that it was told to.
    ~TokenPage();
    TokenPage(const TokenPage&) = delete;
    TokenPage& operator=(const TokenPage&) = delete;

    /// From now on the page returns so many tokens, on a thread of its own.
    void begin(std::size_t count);
    /// As an engine flushes: the token goes out behind the commands, and the wait is one that a
    /// reconnection or a new view of the client would end.
    void flush();

  private:
    Client fClient;
    std::shared_ptr<kiro::web::CommandSenderInterface> fSender;
    std::unique_ptr<kiro::web::PubSubACTRequestor> fRequestor;
    std::shared_ptr<kiro::web::ConnectionStatus> fStatus;
    std::future<void> fReturned;
};

/// Sets the sample: what `quantile` of the round trips stay below, in nanoseconds.
template <typename Trip>
void timeTrips(benchmark::State& state, std::size_t count, double quantile, const Trip& trip) {
    using std::chrono::steady_clock;
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

}  // namespace bench
