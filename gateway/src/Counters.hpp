#pragma once

#include <atomic>
#include <cstdint>

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

}  // namespace kirogateway
