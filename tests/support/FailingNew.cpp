#include "FailingNew.hpp"

#include <cstdlib>
#include <exception>
#include <new>

namespace {

/// The thread's allocation that fails, from its next one, which is 1; 0: none.
constinit thread_local std::size_t left = 0;
constinit thread_local bool hasFailed = false;

bool fails() noexcept {
    if (left == 0 || --left != 0) return false;
    return hasFailed = true;
}

void* allocate(std::size_t size) noexcept {
    if (fails()) return nullptr;
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

Outcome failingNew(std::size_t n, const std::function<void()>& call) {
    Outcome outcome;
    hasFailed = false;
    left = n;
    try {
        call();
        left = 0;
    } catch (const std::exception& error) {
        left = 0;
        outcome.error = error.what();
    }
    outcome.failed = hasFailed;
    return outcome;
}

std::size_t failEachNew(const std::function<bool(std::size_t)>& attempt) {
    std::size_t n = 1;
    while (attempt(n)) ++n;
    return n - 1;
}

}  // namespace support
