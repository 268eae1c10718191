#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "Figure.hpp"
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiro/web/Subscriber.hpp"

namespace bench {

namespace {

using kiro::web::PayloadInterface;
using Callback = std::function<void(const std::string&, const PayloadInterface&)>;

constexpr std::size_t kChannels = 100;
constexpr std::size_t kTarget = 42;

std::string channelName(std::size_t i) { return "/graphics/figure/" + std::to_string(i); }

Callback countInto(std::size_t& count) {
    return [&count](const std::string& /*channel*/, const PayloadInterface& /*payload*/) {
        benchmark::DoNotOptimize(++count);
    };
}

/// One table under one mutex, which stays locked while the listener runs.
void dispatchByHand(benchmark::State& state) {
    std::size_t count = 0;
    std::mutex mutex;
    std::unordered_map<std::string, Callback> listeners;
    for (std::size_t i = 0; i < kChannels; ++i) listeners[channelName(i)] = countInto(count);
    const auto channel = channelName(kTarget);
    const kiro::web::StringPayload payload("{}");
    for (auto _ : state) {
        const std::lock_guard lock(mutex);
        if (const auto found = listeners.find(channel); found != listeners.end()) {
            found->second(channel, payload);
        }
    }
}

/// The whole way of a message through an endpoint, not only its dispatcher's.
void dispatch(benchmark::State& state) {
    std::size_t count = 0;
    const auto endpoint = std::make_shared<kiro::web::test::FakePubSub>();
    std::vector<std::unique_ptr<kiro::web::Subscriber>> subscribers;
    for (std::size_t i = 0; i < kChannels; ++i) {
        subscribers.push_back(subscribe(endpoint, channelName(i), countInto(count)));
    }
    const auto channel = channelName(kTarget);
    kiro::web::StringPayload payload("{}");
    for (auto _ : state) endpoint->publish(channel, payload);
}

}  // namespace

Figure dispatchFigure() { return {"dispatch 1 of 100", "ns", dispatchByHand, dispatch, 3.0}; }

}  // namespace bench
