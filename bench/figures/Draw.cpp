#include <benchmark/benchmark.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Answered.hpp"
#include "Row.hpp"

namespace bench {

namespace {

/// A property of each of so many lines changes with each frame: a command for each of them.
constexpr int kChanges = 10;

struct Free {
    void operator()(char* bytes) const noexcept { std::free(bytes); }
};

/// What nobody can leave out of a command: the object, its text, and a copy in a buffer of exactly
/// its size.
void write(const boost::json::object& command) {
    const auto text = boost::json::serialize(command);
    const std::unique_ptr<char, Free> copy(static_cast<char*>(std::malloc(text.size())));
    std::memcpy(copy.get(), text.data(), text.size());
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
}

/// Answers what a frame by hand does.
std::function<void()> drawByHand() {
    return [sequence = std::uint64_t{0}, frame = std::uint64_t{0}]() mutable {
        write({{"frame", ++frame},
               {"attempt", 1},
               {"whole", false},
               {"seq", ++sequence},
               {"cmd", "beginFrame"}});
        for (int i = 0; i < kChanges; ++i) {
            write({{"width", 1.0 + static_cast<double>(frame % 2)},
                   {"id", i + 3},
                   {"seq", ++sequence},
                   {"cmd", "set"}});
        }
        write({{"ACT", "0123456789-0123456789-" + std::to_string(frame)},
               {"returnChannel", "/figures/return"},
               {"serverSendTS", frame},
               {"clientReceiveTS", 0},
               {"clientSendTS", 0},
               {"serverReceiveTS", 0},
               {"cmd", "sendACT"}});
    };
}

/// Microseconds that a call takes; the median of rounds.
double timeOf(int rounds, const std::function<void()>& call) {
    constexpr int kCalls = 20;  // few: most rounds are over before the processor goes to others
    std::vector<double> times;
    for (int round = 0; round < rounds; ++round) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kCalls; ++i) call();
        const std::chrono::duration<double, std::micro> all =
            std::chrono::steady_clock::now() - start;
        times.push_back(all.count() / kCalls);
    }
    return median(times);
}

/// From the changes to the end of the wait, whose token is back before it begins.
double draw(int rounds) {
    Answered answered;
    auto& window = answered.window();
    auto& axes = window.figure("F").axes();
    std::vector<kirofigures::Line*> lines;
    for (int i = 0; i < kChanges; ++i) lines.push_back(&axes.line().append(i, i));
    window.draw();
    double width = 1;
    return timeOf(rounds, [&] {
        width = 3 - width;
        for (auto* const line : lines) line->width(width);
        window.draw();
    });
}

}  // namespace

Measurement drawMeasurement() {
    return {"draw, 10 changes", [](bool quick) -> std::vector<Row> {
                const int rounds = quick ? 20 : 2001;
                const double floor = timeOf(rounds, drawByHand());
                return {{"draw, 10 changes", "us", draw(rounds), 20, false, floor}};
            }};
}

}  // namespace bench
