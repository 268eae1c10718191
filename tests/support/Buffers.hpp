#pragma once

#include <cstdlib>
#include <string>

#include "relay/common/DataBuffer.hpp"

/// Bytes as the host's blocks carry them.
namespace support {

inline relay::common::DataBuffer bufferOf(const std::string& bytes) {
    auto* data = static_cast<char*>(std::malloc(bytes.size() + 1));
    bytes.copy(data, bytes.size());
    return {data, bytes.size() + 1, bytes.size()};
}

inline std::string bytesOf(const relay::common::DataBuffer& block) {
    return block.empty() ? std::string() : std::string(block.data(), block.size());
}

}  // namespace support
