#pragma once

#include <cstdint>
#include <vector>

#include "kirorecording/Channel.hpp"

namespace kirorecording {

/// The channels of a recorded run as they are numbered when a run is written; who reads asks for
/// their names. docs/recording.md says what is in each.
enum class Topic : std::uint16_t {
    kCommands = 1,
    kBlocks,
    kSnapshots,
    kFrames,
    kTokens,
    kControls,
    kErrors,
    kConnections,
};

[[nodiscard]] const char* nameOf(Topic topic) noexcept;

/// All of them, in the order of their numbers.
[[nodiscard]] std::vector<Channel> runChannels();

}  // namespace kirorecording
