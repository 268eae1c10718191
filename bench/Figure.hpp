#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

/// Everything runs on one processor; a quick run only shows that everything works.
struct Effort {
    bool quick = false;
    /// How often each figure takes its floor and its subject in turn.
    [[nodiscard]] int rounds() const { return quick ? 1 : 15; }
    [[nodiscard]] double secondsPerSample() const { return quick ? 0.001 : 0.1; }
    [[nodiscard]] std::size_t backlog() const { return quick ? 10'000 : 1'000'000; }
};

using Body = void (*)(benchmark::State&);

/// One line of the table: what is measured, and the floor beside which it stands. Both are Google
/// benchmarks; a sample is the time of an iteration or, if there is one, the counter `kValue`.
struct Figure {
    std::string name;
    std::string unit;
    Body floor;
    Body subject;
    double target;
    /// For a rate, which is to be high: its ratio is the floor's time by the subject's.
    bool isRate = false;
    /// For a sample that takes long by itself: one iteration, timed by the body.
    bool isOneShot = false;
};

inline constexpr const char* kValue = "value";

/// What each source contributes.
std::vector<Figure> commandFigures();
Figure dispatchFigure();
Figure blockFigure();
Figure flushFigure();
/// REQUIRES: asked last; a million commands leave a heap that is no longer fresh.
std::vector<Figure> backlogFigures(std::size_t numCommands);

/// Runs a figure's floor and subject in turn and prints its line: the medians of the samples, and
/// the median of the rounds' ratios, so that a disturbance that outlasts a round cancels out.
void printHeading();
void measureAndPrint(const Figure& figure, const Effort& effort);

}  // namespace bench
