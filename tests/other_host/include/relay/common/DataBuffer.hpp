#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <utility>

namespace relay::common {

class DataBuffer {
  public:
    DataBuffer() noexcept = default;
    DataBuffer(char* data, std::size_t capacity, std::size_t size) noexcept
        : fData(data), fCapacity(capacity), fSize(size) {}
    DataBuffer(DataBuffer&& other) noexcept
        : fData(std::move(other.fData)),
          fCapacity(std::exchange(other.fCapacity, 0)),
          fSize(std::exchange(other.fSize, 0)) {}
    DataBuffer& operator=(DataBuffer&& other) noexcept {
        fData = std::move(other.fData);
        fCapacity = std::exchange(other.fCapacity, 0);
        fSize = std::exchange(other.fSize, 0);
        return *this;
    }

    char* data() noexcept { return fData.get(); }
    const char* data() const noexcept { return fData.get(); }
    std::size_t capacity() const noexcept { return fCapacity; }
    std::size_t size() const noexcept { return fSize; }
    bool empty() const noexcept { return fData == nullptr; }

  private:
    struct Free {
        void operator()(char* data) const noexcept { std::free(data); }
    };
    std::unique_ptr<char, Free> fData;
    std::size_t fCapacity = 0;
    std::size_t fSize = 0;
};

}  // namespace relay::common
