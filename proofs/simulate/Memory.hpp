#pragma once

#include <cstdint>

/// The program's `operator new`, which can be told to fail. One thread.
namespace simulate::memory {

/// The `n`-th allocation from now on fails (1: the next one), or that one and all behind it.
void failAt(std::uint64_t n, bool andAllBehind) noexcept;
/// No more fail. Returns how many did since `failAt`.
std::uint64_t stopFailing() noexcept;
/// How many failed in all.
[[nodiscard]] std::uint64_t failures() noexcept;

/// While it lives nothing fails: what the simulation itself does within a call of the gateway's.
class Spared {
  public:
    Spared() noexcept;
    Spared(const Spared&) = delete;
    Spared& operator=(const Spared&) = delete;
    ~Spared();
};

}  // namespace simulate::memory
