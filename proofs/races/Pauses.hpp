#pragma once

#include <sched.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

/// Included before everything else where races are looked for: at a lock's boundary a thread
/// sometimes stands back, so that orders come about which an idle machine never shows. What it does
/// follows from KIROWEB_PAUSES, a number, and from how many threads came before; without that
/// variable it does nothing. Allocates nothing and leaves `errno` alone.
namespace kiroweb_prove_races {

inline void pauseByChance() noexcept {
    static const char* const text = std::getenv("KIROWEB_PAUSES");
    if (text == nullptr) return;
    static std::atomic<std::uint64_t> threads{0};
    constexpr std::uint64_t kGolden = 0x9e3779b97f4a7c15U;
    static thread_local std::uint64_t state = std::strtoull(text, nullptr, 10) * kGolden +
                                              threads.fetch_add(1, std::memory_order_relaxed);
    // As SplitMix64 does.
    std::uint64_t number = state += kGolden;
    number = (number ^ number >> 30U) * 0xbf58476d1ce4e5b9U;
    number = (number ^ number >> 27U) * 0x94d049bb133111ebU;
    number ^= number >> 31U;

    const auto kind = number % 64;  // mostly nothing, or there would be no contention
    if (kind >= 16) return;
    if (kind >= 6) return static_cast<void>(sched_yield());
    const int before = errno;
    constexpr long kShort = 100'000;
    constexpr long kLong = 2'000'000;
    timespec time{};
    time.tv_nsec = static_cast<long>(number >> 32U) % (kind == 0 ? kLong : kShort);
    nanosleep(&time, nullptr);
    errno = before;
}

}  // namespace kiroweb_prove_races

#define KIROWEB_LOCK_BOUNDARY() kiroweb_prove_races::pauseByChance()
