#include "FailingNew.hpp"

#include <cstdlib>
#include <new>

namespace {

/// Of each thread. Plain numbers: `operator new` must not allocate to look at them.
struct Watch {
    std::size_t untilFailure = 0;  ///< 0: none will fail
    std::size_t countedSize = 0;   ///< 0: nothing is counted
    std::size_t count = 0;
};

constinit thread_local Watch watch;

void* allocate(std::size_t size) noexcept {
    if (watch.countedSize != 0 && size == watch.countedSize) ++watch.count;
    if (watch.untilFailure != 0 && --watch.untilFailure == 0) return nullptr;
    return std::malloc(size != 0 ? size : 1);
}

}  // namespace

// The array forms are over these, or a pair of the sanitizer's own.
void* operator new(std::size_t size) {
    if (void* bytes = allocate(size)) return bytes;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* bytes) noexcept { std::free(bytes); }
void operator delete(void* bytes, std::size_t) noexcept { std::free(bytes); }

namespace support {

bool failingNew(std::size_t n, const std::function<void()>& call) {
    watch.untilFailure = n;
    call();
    const bool failed = watch.untilFailure == 0;
    watch.untilFailure = 0;
    return failed;
}

std::size_t allocationsOf(std::size_t size, const std::function<void()>& call) {
    watch.count = 0;
    watch.countedSize = size;
    call();
    watch.countedSize = 0;
    return watch.count;
}

}  // namespace support
