#pragma once

#include <cstddef>

#include "Client.hpp"

namespace bench {

inline constexpr const char* kBlockChannel = "/bench/blocks";

/// Sends blocks of 1 MiB as an engine does that keeps its data, a few under way at a time; when
/// it returns, all have been answered.
void sendBlocks(std::size_t count);
/// Takes so many, and answers each.
void readBlocks(Client& client, std::size_t count);

}  // namespace bench
