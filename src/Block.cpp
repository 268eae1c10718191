#include "Block.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "CHeap.hpp"

namespace kiro::web::binary {

void writeID(DataID id, char (&out)[kBlockHeaderSize]) {
    for (std::size_t i = 0; i < kBlockHeaderSize; ++i) {
        out[i] = static_cast<char>((id.value() >> (8U * i)) & 0xFFU);
    }
}

DataID blockID(const relay::common::DataBuffer& block) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < kBlockHeaderSize; ++i) {
        value |= std::uint64_t{static_cast<unsigned char>(block.data()[i])} << (8U * i);
    }
    return DataID(value);
}

relay::common::DataBuffer buildBlock(DataID id, const char* data, std::size_t length) {
    if (length > std::numeric_limits<std::size_t>::max() - kBlockHeaderSize) {
        throw std::runtime_error("Out of memory!");
    }
    const std::size_t size = kBlockHeaderSize + length;
    auto bytes = allocateBytes(size);
    char header[kBlockHeaderSize];
    writeID(id, header);
    std::copy_n(header, kBlockHeaderSize, bytes.get());
    std::copy_n(data, length, bytes.get() + kBlockHeaderSize);
    return {bytes.release(), size, size};
}

relay::common::DataBuffer copyBlock(const relay::common::DataBuffer& block) {
    auto bytes = allocateBytes(block.size());
    std::copy_n(block.data(), block.size(), bytes.get());
    return {bytes.release(), block.size(), block.size()};
}

}  // namespace kiro::web::binary
