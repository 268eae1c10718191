#include "FailingNew.hpp"

#include <cstdlib>
#include <new>

namespace {

/// Of each thread; 0: none will fail. A plain number: `operator new` must not allocate to look at
/// it.
constinit thread_local std::size_t untilFailure = 0;

void* allocate(std::size_t size) noexcept {
    if (untilFailure != 0 && --untilFailure == 0) return nullptr;
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
    untilFailure = n;
    call();
    const bool failed = untilFailure == 0;
    untilFailure = 0;
    return failed;
}

}  // namespace support
