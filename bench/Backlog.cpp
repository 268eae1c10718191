#include <malloc.h>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Figure.hpp"
#include "ValveService.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "ui_objects/Cookie.hpp"

namespace bench {

namespace {

using kiro::web::BootstrappingCommandSender;
using kiro::web::JSONPayload;
using Clock = std::chrono::steady_clock;

const std::string kChannel = "/bench/backlog";
std::size_t numCommands = 0;

/// A small command: the smaller, the more of the memory is the queue's own. The number comes
/// first, so that its receiver finds it without looking for it.
JSONPayload makeCommand(std::size_t number) {
    JSONPayload payload;
    payload.addDataToPayload("number", number);
    payload.addDataToPayload("handle", ui_objects::Cookie(4711));
    payload.addDataToPayload("value", 0.75);
    return payload;
}

void sendAll(BootstrappingCommandSender& sender) {
    for (std::size_t i = 0; i < numCommands; ++i) sender.sendCommand("set", makeCommand(i));
}

/// Counts what arrives as long as it arrives in order.
class OrderCheck {
  public:
    explicit OrderCheck(ValveService& valve) : fValve(valve) { fValve.setDrain(&fDrain); }
    ~OrderCheck() { fValve.setDrain(nullptr); }
    OrderCheck(const OrderCheck&) = delete;
    OrderCheck& operator=(const OrderCheck&) = delete;

    void waitForAll() { fAll.get_future().wait(); }
    /// REQUIRES: the publishing thread has ended or waits.
    [[nodiscard]] bool haveAllInOrder() const { return fIsInOrder && fArrived == numCommands; }

  private:
    void check(const relay::message_service::JsonMessage& message) {
        constexpr std::string_view kBegin = R"({"number":)";
        std::size_t number = 0;
        std::from_chars(message.json + kBegin.size(), message.json + message.length, number);
        fIsInOrder = fIsInOrder && number == fArrived;
        if (++fArrived == numCommands) fAll.set_value();
    }

    ValveService& fValve;
    std::size_t fArrived = 0;
    bool fIsInOrder = true;
    std::promise<void> fAll;
    const ValveService::Drain fDrain = [this](const auto& message) { check(message); };
};

void setNanosecondsPerCommand(benchmark::State& state, Clock::duration total) {
    const std::chrono::duration<double, std::nano> nanoseconds = total;
    state.counters[kValue] = nanoseconds.count() / static_cast<double>(numCommands);
    state.SetIterationTime(nanoseconds.count() / 1e9);
}

/// The same commands built and sent at once, by a sender whose client is there.
void buildAndSend(benchmark::State& state) {
    auto& valve = ValveService::install();
    for (auto _ : state) {
        BootstrappingCommandSender sender(kChannel);
        valve.announce(kChannel);
        sender.sendCommand("first", {});
        kirohost::waitForDelivery();
        OrderCheck check(valve);
        const auto start = Clock::now();
        sendAll(sender);
        setNanosecondsPerCommand(state, Clock::now() - start);
        if (!check.haveAllInOrder()) state.SkipWithError("commands missing or out of order");
    }
}

/// From the announcement of the client to the last command of the backlog.
void drain(benchmark::State& state) {
    auto& valve = ValveService::install();
    for (auto _ : state) {
        BootstrappingCommandSender sender(kChannel);
        sendAll(sender);
        OrderCheck check(valve);
        const auto start = Clock::now();
        valve.announce(kChannel);
        check.waitForAll();
        setNanosecondsPerCommand(state, Clock::now() - start);
        if (!check.haveAllInOrder()) state.SkipWithError("commands missing or out of order");
        sender.sendCommand("last", {});  // joins the publish thread, which may still count
    }
}

/// What the process holds of the heap, in bytes.
std::size_t heapInUse() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void setBytesPerCommand(benchmark::State& state, std::size_t before) {
    state.counters[kValue] =
        static_cast<double>(heapInUse() - before) / static_cast<double>(numCommands);
    state.SetIterationTime(1.0);
}

/// The payloads side by side, each with the stamp that a sender gives it.
void holdPayloads(benchmark::State& state) {
    for (auto _ : state) {
        const auto before = heapInUse();
        std::vector<JSONPayload> payloads;
        payloads.reserve(numCommands);
        for (std::size_t i = 0; i < numCommands; ++i) {
            payloads.emplace_back(makeCommand(i)).addDataToPayload("cmd", "set");
        }
        setBytesPerCommand(state, before);
    }
}

void queuePayloads(benchmark::State& state) {
    ValveService::install();
    for (auto _ : state) {
        BootstrappingCommandSender sender(kChannel);
        const auto before = heapInUse();
        sendAll(sender);
        setBytesPerCommand(state, before);
    }
}

}  // namespace

std::vector<Figure> backlogFigures(std::size_t theNumCommands) {
    numCommands = theNumCommands;
    return {{"drain backlog", "ns/command", buildAndSend, drain, 1.2, Comparison::kRate, true},
            {"backlog memory", "bytes/command", holdPayloads, queuePayloads, 1.5, Comparison::kCost,
             true}};
}

}  // namespace bench
