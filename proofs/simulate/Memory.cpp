#include "Memory.hpp"

#include <cstdlib>
#include <new>

namespace simulate::memory {
namespace {

constinit std::uint64_t until = 0;  // the next one to fail; 0: none
constinit bool areAllBehind = false;
constinit int spared = 0;
constinit std::uint64_t failed = 0;
constinit std::uint64_t failedBefore = 0;

}  // namespace

void* allocate(std::size_t size) noexcept {
    if (until != 0 && spared == 0) {
        const bool fails = --until == 0;
        if (fails && areAllBehind) until = 1;
        if (fails) return ++failed, nullptr;
    }
    return std::malloc(size != 0 ? size : 1);
}

void failAt(std::uint64_t n, bool andAllBehind) noexcept {
    failedBefore = failed;
    areAllBehind = andAllBehind;
    until = n;
}

std::uint64_t stopFailing() noexcept {
    until = 0;
    return failed - failedBefore;
}

std::uint64_t failures() noexcept { return failed; }

Spared::Spared() noexcept { ++spared; }
Spared::~Spared() { --spared; }

}  // namespace simulate::memory

void* operator new(std::size_t size) {
    if (void* bytes = simulate::memory::allocate(size)) return bytes;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return simulate::memory::allocate(size);
}
void operator delete(void* bytes) noexcept { std::free(bytes); }
void operator delete(void* bytes, std::size_t) noexcept { std::free(bytes); }
