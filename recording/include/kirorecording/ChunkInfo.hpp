#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace kirorecording {

/// What a file's index says of a chunk.
struct ChunkInfo {
    std::uint64_t first = 0;  ///< time of its earliest message
    std::uint64_t last = 0;   ///< and of its latest one
    std::uint64_t offset = 0;
    std::uint64_t length = 0;  ///< of the whole record
    /// Of each channel that has messages in it: where their index lies. A reader that had to do
    /// without an index knows the channels only.
    std::map<std::uint16_t, std::uint64_t> indexes;
    std::uint64_t indexLength = 0;
    std::string compression;  ///< "" or "zstd"
    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0;
};

}  // namespace kirorecording
