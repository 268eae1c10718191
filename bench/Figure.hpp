#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

/// A quick run only shows that everything works.
struct Effort {
    int numRounds = 15;
    bool quick = false;
    /// How often each figure takes its floor and its subject in turn.
    [[nodiscard]] int rounds() const { return quick ? 1 : numRounds; }
    [[nodiscard]] double secondsPerSample() const { return quick ? 0.001 : 0.1; }
    [[nodiscard]] std::size_t backlog() const { return quick ? 10'000 : 1'000'000; }
};

using Body = std::function<void(benchmark::State&)>;

/// What stands in the table as the ratio, and what it may be.
enum class Comparison {
    kCost,        ///< the subject's by the floor's, at most the target
    kRate,        ///< the same of the rates, so of the floor's cost by the subject's; at least
    kDifference,  ///< the subject less the floor, at most
};

/// One line of the table: what is measured, and the floor beside which it stands. Both are Google
/// benchmarks; a sample is the time of an iteration or, if there is one, the counter `kValue`.
struct Figure {
    std::string name;
    std::string unit;
    Body floor;
    Body subject;
    double target;
    Comparison comparison = Comparison::kCost;
    /// For a sample that takes long by itself: one iteration, timed by the body.
    bool isOneShot = false;
};

inline constexpr const char* kValue = "value";

/// What each source contributes.
std::vector<Figure> commandFigures();
Figure dispatchFigure();
std::vector<Figure> blockFigures();
Figure flushFigure();
/// REQUIRES: asked last; a million commands leave a heap that is no longer fresh.
std::vector<Figure> backlogFigures(std::size_t numCommands);

/// Runs a figure's floor and subject in turn and prints its line: the medians of the samples, and
/// the median of the rounds' ratios, so that a disturbance that outlasts a round cancels out.
void printHeading();
void measureAndPrint(const Figure& figure, const Effort& effort);

}  // namespace bench
