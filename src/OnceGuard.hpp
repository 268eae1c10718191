#pragma once

#include <atomic>

#include "annotated/Mutex.hpp"

namespace kiro {

/// Runs an initialisation once; one that throws does not count, and the next caller tries again.
///
/// `std::call_once` would say the same, but hangs under ThreadSanitizer when the function throws,
/// and `boost::call_once` is reported there because the system's Boost is not instrumented.
class OnceGuard {
  public:
    /// `rank`: what `initialise` may lock comes behind it.
    explicit OnceGuard(annotated::Rank rank = annotated::Rank::kOnce) noexcept : fMutex(rank) {}

    /// Concurrent callers wait for the one that runs `initialise`; afterwards a call costs one
    /// load. `initialise` must not come back here.
    template <typename Initialise>
    void run(const Initialise& initialise) EXCLUDES_LOCK(fMutex) {
        if (isDone()) return;
        const annotated::Lock lock(fMutex);
        if (fDone.load(std::memory_order_relaxed)) return;
        initialise();
        fDone.store(true, std::memory_order_release);
    }

    /// Whether an initialisation has ended well. One load.
    [[nodiscard]] bool isDone() const noexcept { return fDone.load(std::memory_order_acquire); }

  private:
    std::atomic<bool> fDone = false;
    annotated::Mutex fMutex;
};

}  // namespace kiro
