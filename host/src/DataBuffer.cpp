#include "relay/common/DataBuffer.hpp"

#include <cstdlib>
#include <utility>

namespace relay::common {

DataBuffer::DataBuffer(char* data, std::size_t capacity, std::size_t size) noexcept
    : fData(data), fCapacity(capacity), fSize(size) {}

DataBuffer::DataBuffer(DataBuffer&& other) noexcept
    : fData(std::exchange(other.fData, nullptr)),
      fCapacity(std::exchange(other.fCapacity, 0)),
      fSize(std::exchange(other.fSize, 0)) {}

DataBuffer& DataBuffer::operator=(DataBuffer&& other) noexcept {
    DataBuffer taken(std::move(other));
    std::swap(fData, taken.fData);
    std::swap(fCapacity, taken.fCapacity);
    std::swap(fSize, taken.fSize);
    return *this;
}

DataBuffer::~DataBuffer() { std::free(fData); }

}  // namespace relay::common
