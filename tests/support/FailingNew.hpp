#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

/// The program that links this has its `operator new` and `operator delete` replaced, by ones over
/// the C heap, so that the sanitizers still see every block.
namespace support {

struct Outcome {
    bool failed = false;  ///< an allocation did
    std::string error;    ///< the text of the exception; empty: none
};

/// Runs `call` with the `n`-th allocation (the first is 1) failing that it makes with
/// `operator new` on the calling thread.
Outcome failingNew(std::size_t n, const std::function<void()>& call);

/// Has allocations fail on another thread, which `adopt` is called on once.
class FailPoint {
  public:
    /// REQUIRES: the calling thread makes no allocation after this object has gone.
    void adopt() noexcept;
    /// The `n`-th allocation of that thread from now on fails, or with `andAllBehind` that one and
    /// all others until `disarm`.
    void arm(std::size_t n, bool andAllBehind = false) noexcept;
    /// Returns whether an allocation failed since `arm`.
    bool disarm() noexcept;
    /// Called for each allocation of the thread.
    [[nodiscard]] bool fails() noexcept;

  private:
    std::atomic<std::size_t> fUntil{0};
    std::atomic<bool> fAllBehind{false};
    std::atomic<bool> fHasFailed{false};
};

/// Calls `attempt` with 1, 2, ... until it answers that no allocation failed, so that each of a
/// path fails in turn. Answers how many did.
std::size_t failEachNew(const std::function<bool(std::size_t)>& attempt);

}  // namespace support
