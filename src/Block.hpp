#pragma once

#include <cstddef>
#include <string_view>

#include "kiro/web/binary/DataID.hpp"
#include "relay/common/DataBuffer.hpp"

/// Building and reading data blocks: the identifier as 8 bytes little-endian, then the data.
namespace kiro::web::binary {

constexpr std::size_t kBlockHeaderSize = 8;

/// A command's JSON text, sent as a block.
constexpr DataID kCommandTextID(1);
/// Says that a block could not be sent for lack of memory.
constexpr DataID kOutOfMemoryID(2);

/// A block with a copy of `length` bytes. REQUIRES: `data` is not null unless `length` is 0. Throws
/// `std::runtime_error` ("Out of memory!").
relay::common::DataBuffer buildBlock(DataID id, const char* data, std::size_t length);

/// The identifier in the header. REQUIRES: the block has one.
DataID blockID(const relay::common::DataBuffer& block);

/// The data behind the header, valid as long as the block. REQUIRES: the block has a header.
std::string_view dataOf(const relay::common::DataBuffer& block);

/// Writes `id` little-endian into `out`.
void writeID(DataID id, char (&out)[kBlockHeaderSize]);

}  // namespace kiro::web::binary
