#include <algorithm>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <cstdlib>
#include <memory>
#include <utility>

#include "Figure.hpp"
#include "SampleCommand.hpp"
#include "ValveService.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"

namespace bench {

namespace {

struct Free {
    void operator()(char* bytes) const noexcept { std::free(bytes); }
};

void buildByHand(benchmark::State& state) {
    const SampleCommand command;
    for (auto _ : state) {
        boost::json::object object;
        fill(object, command);
        benchmark::DoNotOptimize(object);
    }
}

void build(benchmark::State& state) {
    const SampleCommand command;
    for (auto _ : state) {
        kiro::web::JSONPayload payload;
        fill(payload, command);
        benchmark::DoNotOptimize(payload);
    }
}

/// What nobody can leave out: the object with its command, its text, and a copy of the text in a
/// buffer of exactly its size.
void sendByHand(benchmark::State& state) {
    const SampleCommand command;
    for (auto _ : state) {
        boost::json::object object;
        fill(object, command);
        append(object, "cmd", "setProperties");
        const auto text = boost::json::serialize(object);
        const std::unique_ptr<char, Free> copy(static_cast<char*>(std::malloc(text.size())));
        std::copy(text.begin(), text.end(), copy.get());
        benchmark::DoNotOptimize(copy.get());
        benchmark::ClobberMemory();
    }
}

void send(benchmark::State& state) {
    auto& valve = ValveService::install();
    kiro::web::BootstrappingCommandSender sender("/bench/commands");
    valve.announce("/bench/commands");
    const ValveService::Drain drop = [](const auto& message) {
        benchmark::DoNotOptimize(message.json);
        benchmark::ClobberMemory();
    };
    valve.setDrain(&drop);
    const SampleCommand command;
    sender.sendCommand("first", {});  // from the next one on it sends directly
    for (auto _ : state) {
        kiro::web::JSONPayload payload;
        fill(payload, command);
        sender.sendCommand("setProperties", std::move(payload));
    }
    valve.setDrain(nullptr);
}

}  // namespace

std::vector<Figure> commandFigures() {
    return {{"build command", "ns", buildByHand, build, 1.15},
            {"send command", "ns", sendByHand, send, 1.4}};
}

}  // namespace bench
