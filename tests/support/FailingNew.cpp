#include "FailingNew.hpp"

#include <cstdlib>
#include <new>

namespace {

/// Of each thread. Plain numbers: `operator new` must not allocate to look at them.
struct Watch {
    std::size_t untilFailure = 0;  ///< 0: none will fail
    bool hasFailed = false;
    std::size_t countedSize = 0;  ///< 0: nothing is counted
    std::size_t count = 0;
};

constinit thread_local Watch watch;

void* allocate(std::size_t size) noexcept {
    if (watch.countedSize != 0 && size == watch.countedSize) ++watch.count;
    if (watch.untilFailure != 0 && --watch.untilFailure == 0) {
        watch.hasFailed = true;
        return nullptr;
    }
    return std::malloc(size != 0 ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    if (void* bytes = allocate(size)) return bytes;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* bytes) noexcept { std::free(bytes); }
void operator delete[](void* bytes) noexcept { std::free(bytes); }
void operator delete(void* bytes, std::size_t) noexcept { std::free(bytes); }
void operator delete[](void* bytes, std::size_t) noexcept { std::free(bytes); }
void operator delete(void* bytes, const std::nothrow_t&) noexcept { std::free(bytes); }
void operator delete[](void* bytes, const std::nothrow_t&) noexcept { std::free(bytes); }

namespace support {

FailingNew::FailingNew(std::size_t n) {
    watch.hasFailed = false;
    watch.untilFailure = n;
}

FailingNew::~FailingNew() { watch.untilFailure = 0; }

bool FailingNew::hasFailed() const { return watch.hasFailed; }

AllocationCount::AllocationCount(std::size_t size) {
    watch.count = 0;
    watch.countedSize = size;
}

AllocationCount::~AllocationCount() { watch.countedSize = 0; }

std::size_t AllocationCount::count() const { return watch.count; }

}  // namespace support
