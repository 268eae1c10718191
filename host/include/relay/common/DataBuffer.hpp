#pragma once

#include <cstddef>

#include "kirohost/Export.hpp"

namespace relay::common {

/// An owned byte buffer of the C heap.
///
/// Move-only. It frees its bytes with `std::free`, so whoever fills one in takes them from
/// `std::malloc`. A moved-from or default-constructed buffer is empty: no data, size 0.
class KIROHOST_EXPORT DataBuffer {
  public:
    DataBuffer() noexcept = default;

    /// Takes ownership of `data`, which came from `std::malloc` (or is null, then both numbers
    /// are 0). `capacity` bytes are allocated, the first `size` of them are in use.
    DataBuffer(char* data, std::size_t capacity, std::size_t size) noexcept;

    DataBuffer(DataBuffer&& other) noexcept;
    DataBuffer& operator=(DataBuffer&& other) noexcept;
    DataBuffer(const DataBuffer&) = delete;
    DataBuffer& operator=(const DataBuffer&) = delete;
    ~DataBuffer();

    /// The bytes, null when the buffer owns none.
    [[nodiscard]] char* data() noexcept { return fData; }
    [[nodiscard]] const char* data() const noexcept { return fData; }
    /// Allocated bytes.
    [[nodiscard]] std::size_t capacity() const noexcept { return fCapacity; }
    /// Bytes in use, at most `capacity()`.
    [[nodiscard]] std::size_t size() const noexcept { return fSize; }
    /// True when the buffer owns no bytes at all.
    [[nodiscard]] bool empty() const noexcept { return fData == nullptr; }

  private:
    char* fData = nullptr;
    std::size_t fCapacity = 0;
    std::size_t fSize = 0;
};

}  // namespace relay::common
