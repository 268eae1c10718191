#pragma once

#include <cstddef>
#include <cstdint>

/// What the monitor's engine and a client of it agree on, beside the commands: see
/// docs/figures.md. Nothing else is shared by the two.
namespace monitor::contract {

// Channels of the message service.
inline constexpr const char* kCommandChannel = "/graphics/monitor";
inline constexpr const char* kReadyChannel = "/graphics/monitor/channelReady";
inline constexpr const char* kReturnChannel = "/graphics/monitor/return";
inline constexpr const char* kNewViewChannel = "/graphics/monitor/newView";
inline constexpr const char* kReconnectChannel = "/graphics/monitor/reconnect";
/// Where a client reports its own errors, whatever it is a client of.
inline constexpr const char* kErrorChannel = "/services/ErrorLoggingService/JSErrors";

// Channels of the binary stream service.
inline constexpr const char* kBlockChannel = "/graphics/monitor/blocks";
inline constexpr const char* kPickChannel = "/graphics/monitor/picks";

/// The word for the client in the user's time-out texts.
inline constexpr const char* kClientKind = "browser";

inline constexpr std::uint64_t kFramesPerSecond = 30;

// The strip chart: a frame adds 12 samples, the chart shows the last five seconds.
inline constexpr std::uint64_t kSamplesPerSecond = 360;
inline constexpr std::uint64_t kSamplesPerFrame = kSamplesPerSecond / kFramesPerSecond;
inline constexpr std::uint64_t kWindowSamples = 5 * kSamplesPerSecond;

// The map: 300 frames replay one week, then the week begins again.
inline constexpr std::uint64_t kFramesPerWeek = 300;
inline constexpr std::int64_t kMillisecondsPerFrame =
    std::int64_t{7} * 24 * 3600 * 1000 / std::int64_t{kFramesPerWeek};

}  // namespace monitor::contract
