#include "CHeap.hpp"

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace kiro {

namespace {
std::atomic<void* (*)(std::size_t)> allocateFunction = &std::malloc;
}

CHeapBytes allocateBytes(std::size_t size) {
    // Of no bytes malloc may return null, which is not a failure.
    void* bytes = allocateFunction.load()(std::max<std::size_t>(size, 1));
    if (bytes == nullptr) throw std::runtime_error("Out of memory!");
    return CHeapBytes(static_cast<char*>(bytes));
}

void replaceAllocate(void* (*allocate)(std::size_t)) {
    allocateFunction = allocate != nullptr ? allocate : &std::malloc;
}

}  // namespace kiro
