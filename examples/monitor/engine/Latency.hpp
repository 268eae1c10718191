#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "kiroutils/CompletionToken.hpp"

namespace monitor::engine {

/// The parts of a flush, by the four stamps of its token. What lies between the stamps of two
/// programs is off by as much as their clocks differ, and can then be below zero; on one machine
/// they have one clock.
struct Latency {
    std::chrono::microseconds toClient;  ///< sent, until the client has it
    std::chrono::microseconds atClient;  ///< until the client has drawn and answers
    std::chrono::microseconds toEngine;  ///< until the answer is here
    std::chrono::microseconds total;     ///< by the engine's clock alone
};

/// None if the client left a stamp out.
[[nodiscard]] std::optional<Latency> latencyOf(
    const kiroutils::CompletionToken::CompletionTokenTimeStamps& stamps);

/// The value below which the given share of `values` lies. REQUIRES: `values` is not empty;
/// `share` is from 0 to 1.
[[nodiscard]] std::chrono::microseconds percentile(std::vector<std::chrono::microseconds> values,
                                                   double share);

}  // namespace monitor::engine
