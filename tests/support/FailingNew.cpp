#include "FailingNew.hpp"

#include <cstdlib>
#include <exception>
#include <new>
#include <utility>

namespace {

/// A plain pointer: `operator new` must not allocate to look at it.
constinit thread_local support::FailPoint* failPoint = nullptr;

void* allocate(std::size_t size) noexcept {
    if (failPoint != nullptr && failPoint->fails()) return nullptr;
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
    FailPoint point;
    point.arm(n);
    auto* const before = std::exchange(failPoint, &point);
    try {
        call();
        outcome.failed = point.disarm();
    } catch (const std::exception& error) {
        outcome.failed = point.disarm();
        outcome.error = error.what();
    }
    failPoint = before;
    return outcome;
}

void FailPoint::adopt() noexcept { failPoint = this; }

void FailPoint::arm(std::size_t n, bool andAllBehind) noexcept {
    fHasFailed = false;
    fAllBehind = andAllBehind;
    fUntil = n;
}

bool FailPoint::disarm() noexcept {
    fUntil = 0;
    return fHasFailed;
}

bool FailPoint::fails() noexcept {
    auto until = fUntil.load();
    // The test may disarm it meanwhile.
    while (until != 0) {
        const auto next = until == 1 && fAllBehind ? 1 : until - 1;
        if (!fUntil.compare_exchange_weak(until, next)) continue;
        if (until == 1) fHasFailed = true;
        return until == 1;
    }
    return false;
}

std::size_t failEachNew(const std::function<bool(std::size_t)>& attempt) {
    std::size_t n = 1;
    while (attempt(n)) ++n;
    return n - 1;
}

}  // namespace support
