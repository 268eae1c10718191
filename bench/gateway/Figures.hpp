#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "../Figure.hpp"

namespace bench {

inline constexpr std::size_t kIdlePages = 1000;

/// What each source contributes.
std::vector<Figure> textFigures(const Effort& effort);
Figure gatewayBlockFigure(const Effort& effort);
std::vector<Figure> roundTripFigures(const Effort& effort);
std::vector<Figure> floodFigures(const Effort& effort);
Figure wildcardFigure(const Effort& effort);
std::vector<Figure> lostViewFigures();
/// REQUIRES: measured while the process has a single thread.
Figure idlePageFigure();
std::vector<Figure> browserFigures(const Effort& effort);

/// The text of the command that the figures send.
[[nodiscard]] std::string sampleText();

/// Sets the sample of a one-shot figure: the time, in nanoseconds, that each of `count` took.
inline void setTimeEach(benchmark::State& state, std::chrono::nanoseconds all, std::size_t count) {
    state.SetIterationTime(std::chrono::duration<double>(all).count());
    state.counters[kValue] = static_cast<double>(all.count()) / static_cast<double>(count);
}

}  // namespace bench
