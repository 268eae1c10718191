#pragma once

#include <atomic>

namespace kiro::web {

/// What the client's announcement said. Aligned to its size: clang otherwise leaves the atomic to
/// a library function, which may lock.
struct alignas(2) ChannelInfo {
    bool usingBinary = false;      ///< the client's binary channel is up
    bool usingFastBinary = false;  ///< the client asked for fast binary
};

/// Read without a lock by sends and queries while an announcement replaces it.
using AtomicChannelInfo = std::atomic<ChannelInfo>;
static_assert(sizeof(ChannelInfo) == alignof(ChannelInfo));
static_assert(AtomicChannelInfo::is_always_lock_free);

}  // namespace kiro::web
