#pragma once

#include <cstddef>
#include <cstdint>

namespace kirolink {

/// What went over an engine's link since it was made.
struct Statistics {
    std::size_t gateways = 0;  ///< that have joined now
    std::size_t pages = 0;     ///< at those that are heard
    std::uint64_t views = 0;   ///< that the session has had
    std::uint64_t framesSent = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t resends = 0;  ///< frames that gateways asked for
    std::uint64_t textsReceived = 0;
    std::uint64_t blocksReceived = 0;
    std::uint64_t blocksDelivered = 0;  ///< to every gateway that was there
    std::uint64_t blocksRefused = 0;    ///< by a page, and given back as the two that follow
    std::uint64_t blocksNobody = 0;     ///< no page heard them
    std::uint64_t blocksGone = 0;       ///< a gateway was gone before it answered
    std::uint64_t gaps = 0;             ///< times that something of a gateway's was missing
    std::uint64_t refusals = 0;         ///< frames that could not be read, or not be meant
    std::uint64_t dropped = 0;          ///< gateways
    std::size_t waiting = 0;            ///< bytes that are kept
};

}  // namespace kirolink
