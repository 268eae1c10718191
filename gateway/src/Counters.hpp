#pragma once

#include <atomic>
#include <cstdint>
#include <iterator>

#include "kirogateway/Gateway.hpp"

namespace kirogateway {

/// What the statistics are made of. Any thread.
struct Counters {
    std::atomic<std::uint64_t> views{0};
    std::atomic<std::uint64_t> returns{0};
    std::atomic<std::uint64_t> textsSent{0};
    std::atomic<std::uint64_t> blocksDelivered{0};
    std::atomic<std::uint64_t> blocksGivenBack{0};
    std::atomic<std::uint64_t> textsReceived{0};
    std::atomic<std::uint64_t> blocksReceived{0};
    std::atomic<std::uint64_t> refusals{0};
    std::atomic<std::uint64_t> disconnected{0};
};

/// One of them: its name, where it is shown and where it is counted.
struct Figure {
    const char* name;
    std::uint64_t Statistics::*shown;
    std::atomic<std::uint64_t> Counters::*counted;
};

inline constexpr Figure kFigures[] = {
    {"views", &Statistics::views, &Counters::views},
    {"returns", &Statistics::returns, &Counters::returns},
    {"textsSent", &Statistics::textsSent, &Counters::textsSent},
    {"blocksDelivered", &Statistics::blocksDelivered, &Counters::blocksDelivered},
    {"blocksGivenBack", &Statistics::blocksGivenBack, &Counters::blocksGivenBack},
    {"textsReceived", &Statistics::textsReceived, &Counters::textsReceived},
    {"blocksReceived", &Statistics::blocksReceived, &Counters::blocksReceived},
    {"refusals", &Statistics::refusals, &Counters::refusals},
    {"disconnected", &Statistics::disconnected, &Counters::disconnected},
};
static_assert(sizeof(Counters) == std::size(kFigures) * sizeof(std::atomic<std::uint64_t>),
              "a figure is not shown");

}  // namespace kirogateway
