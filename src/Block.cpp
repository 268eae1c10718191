#include "Block.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "CHeap.hpp"
#include "checked/Require.hpp"

namespace kiro::web::binary {

void writeID(DataID id, char (&out)[kBlockHeaderSize]) {
    for (std::size_t i = 0; i < kBlockHeaderSize; ++i) {
        out[i] = static_cast<char>((id.value() >> (8U * i)) & 0xFFU);
    }
}

DataID blockID(const relay::common::DataBuffer& block) {
    KIROWEB_REQUIRE(block.size() >= kBlockHeaderSize);
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < kBlockHeaderSize; ++i) {
        value |= std::uint64_t{static_cast<unsigned char>(block.data()[i])} << (8U * i);
    }
    return DataID(value);
}

std::string_view dataOf(const relay::common::DataBuffer& block) {
    KIROWEB_REQUIRE(block.size() >= kBlockHeaderSize);
    return {block.data() + kBlockHeaderSize, block.size() - kBlockHeaderSize};
}

relay::common::DataBuffer buildBlock(DataID id, const char* data, std::size_t length) {
    KIROWEB_REQUIRE(data != nullptr || length == 0);
    if (length > std::numeric_limits<std::size_t>::max() - kBlockHeaderSize) {
        throwOutOfMemory();
    }
    const std::size_t size = kBlockHeaderSize + length;
    auto bytes = allocateBytes(size);
    char header[kBlockHeaderSize];
    writeID(id, header);
    std::copy_n(header, kBlockHeaderSize, bytes.get());
    std::copy_n(data, length, bytes.get() + kBlockHeaderSize);
    return {bytes.release(), size, size};
}

}  // namespace kiro::web::binary
