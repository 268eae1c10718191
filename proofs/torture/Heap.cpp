#include "Heap.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

// The one compiler defines a macro, the other has to be asked.
#ifdef __SANITIZE_ADDRESS__
#define KIROWEB_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KIROWEB_SANITIZED
#endif
#endif

#ifdef KIROWEB_SANITIZED
#define KIROWEB_REAL(function) __interceptor_##function
#else
#define KIROWEB_REAL(function) __libc_##function
#endif

extern "C" {
void* KIROWEB_REAL(malloc)(std::size_t);
void* KIROWEB_REAL(calloc)(std::size_t, std::size_t);
void* KIROWEB_REAL(realloc)(void*, std::size_t);
void* KIROWEB_REAL(memalign)(std::size_t, std::size_t);
void KIROWEB_REAL(free)(void*);
}

namespace {

using std::chrono::steady_clock;

/// How long all allocations fail at most where nobody says that it is enough.
constexpr std::chrono::milliseconds kDrought(20);

constinit thread_local bool isExposed = false;
constinit std::atomic<std::size_t> until{0};
constinit std::atomic<bool> andAllBehind{false};
constinit std::atomic<bool> endsByItself{false};
constinit std::atomic<bool> hasFailed{false};
constinit std::atomic<steady_clock::rep> droughtEnd{0};
constinit std::atomic<long> live{0};

bool isDroughtOver() noexcept {
    const auto now = steady_clock::now().time_since_epoch();
    if (!hasFailed.exchange(true)) droughtEnd = steady_clock::duration(now + kDrought).count();
    return endsByItself && now.count() >= droughtEnd;
}

bool fails() noexcept {
    if (!isExposed) return false;
    auto left = until.load();
    // It may be disarmed meanwhile.
    while (left != 0) {
        const bool isTurn = left == 1;
        const auto next = isTurn && andAllBehind && !isDroughtOver() ? 1 : left - 1;
        if (!until.compare_exchange_weak(left, next)) continue;
        if (isTurn) hasFailed = true;
        return isTurn;
    }
    return false;
}

void* counted(void* block) noexcept {
    if (block != nullptr) ++live;
    return block;
}

void* failed() noexcept {
    errno = ENOMEM;
    return nullptr;
}

}  // namespace

// For shared libraries as well: what one of them allocates, another may free.
#pragma GCC visibility push(default)

extern "C" {

void* malloc(std::size_t size) { return fails() ? failed() : counted(KIROWEB_REAL(malloc)(size)); }
void* calloc(std::size_t count, std::size_t size) {
    return fails() ? failed() : counted(KIROWEB_REAL(calloc)(count, size));
}
void* realloc(void* block, std::size_t size) {
    if (block == nullptr) return malloc(size);
    if (size != 0) return fails() ? failed() : KIROWEB_REAL(realloc)(block, size);
    free(block);
    return nullptr;
}
void* memalign(std::size_t alignment, std::size_t size) {
    return fails() ? failed() : counted(KIROWEB_REAL(memalign)(alignment, size));
}
void* aligned_alloc(std::size_t alignment, std::size_t size) { return memalign(alignment, size); }
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}
void free(void* block) {
    if (block != nullptr) --live;
    KIROWEB_REAL(free)(block);
}

}  // extern "C"

void* operator new(std::size_t size) {
    if (void* block = malloc(size != 0 ? size : 1)) return block;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return malloc(size != 0 ? size : 1);
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* block) noexcept { free(block); }
void operator delete(void* block, std::size_t) noexcept { free(block); }
void operator delete[](void* block) noexcept { free(block); }
void operator delete[](void* block, std::size_t) noexcept { free(block); }

#pragma GCC visibility pop

namespace torture {

bool exposeThread(bool exposed) noexcept { return std::exchange(isExposed, exposed); }

void arm(Failure failure, bool itself) noexcept {
    hasFailed = false;
    andAllBehind = failure.andAllBehind;
    endsByItself = itself;
    until = failure.number;
}

bool disarm() noexcept {
    until = 0;
    return hasFailed;
}

long liveBlocks() noexcept { return live; }

}  // namespace torture
