#include <algorithm>
#include <chrono>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "Figures.hpp"
#include "Stage.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"

namespace bench {

namespace {

using std::chrono::steady_clock;

constexpr std::size_t kPages = 40;
constexpr std::size_t kWildcards = 1024;
constexpr std::size_t kChannels = 64;
constexpr double kQuantile = 0.99;

std::string subscriptionTo(std::size_t wildcards) {
    std::string text = R"({"t":"subscribe","channels":["/bench/heard")";
    for (std::size_t i = 1; i < wildcards; ++i) {
        text += ",\"/bench/w" + std::to_string(i) + std::string(i % 16, 'x') + "/*\"";
    }
    return text + "]}";
}

/// Sets the sample: what 99 of 100 publishes stay below, in nanoseconds, while a page subscribes
/// and unsubscribes every now and then, so that nothing that is remembered lasts.
void publish(benchmark::State& state, std::size_t count, std::size_t wildcards) {
    const Stage stage;
    std::list<Client> pages;
    for (std::size_t i = 0; i < kPages; ++i) {
        pages.emplace_back(stage.connect("/bench/heard"));
        // The first page keeps room for what it subscribes to later.
        pages.back().sendText(subscriptionTo(wildcards - (i == 0 && wildcards > 1 ? 1 : 0)));
        pages.back().sendText(R"({"t":"echo","id":1})");
        pages.back().read();
    }
    const auto pubsub = kiro::web::PubSubFactory::pubsubInstance();
    kiro::web::StringPayload payload("{\"x\":1}");
    std::vector<double> times(count);
    for (auto _ : state) {
        for (std::size_t i = 0; i < count; ++i) {
            if (i % 50 == 0) {
                // Waited for: otherwise fewer changes fall into the time of those that are slow.
                pages.front().sendText(R"([{"t":"subscribe","channels":["/bench/more"]},)"
                                       R"({"t":"unsubscribe","channels":["/bench/more"]},)"
                                       R"({"t":"echo","id":1}])");
                pages.front().read();
            }
            const auto channel = "/bench/" + std::to_string(i % kChannels);
            const auto start = steady_clock::now();
            pubsub->publish(channel, payload);
            times[i] = static_cast<double>((steady_clock::now() - start).count());
        }
        state.SetIterationTime(1.0);
    }
    const auto at = times.begin() + static_cast<std::ptrdiff_t>(kQuantile * double(count - 1));
    std::nth_element(times.begin(), at, times.end());
    state.counters[kValue] = *at;
}

}  // namespace

Figure wildcardFigure(const Effort& effort) {
    const std::size_t count = effort.quick ? 1'000 : 50'000;
    return {"publish p99, 40 pages",
            "ns",
            [=](benchmark::State& state) { publish(state, count, 1); },
            [=](benchmark::State& state) { publish(state, count, kWildcards); },
            3.0,
            Comparison::kCost,
            true};
}

}  // namespace bench
