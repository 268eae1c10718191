#pragma once

#include <mutex>

#include "annotated/LockOrder.hpp"

/// Clang's thread-safety annotations, and a mutex that carries them and its place in the lock
/// order. Clang checks what is locked at all, debug and sanitizer builds check the order when they
/// run; others see a plain `std::mutex`.
#if defined(__clang__)
#define ANNOTATED_ATTRIBUTE(x) __attribute__((x))
#else
#define ANNOTATED_ATTRIBUTE(x)
#endif

#define GUARDED_BY(mutex) ANNOTATED_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES_LOCK(...) ANNOTATED_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES_LOCK(...) ANNOTATED_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) ANNOTATED_ATTRIBUTE(acquired_before(__VA_ARGS__))
/// For a function that leaves out a lock on purpose; a comment beside it says why that is safe.
#define NO_THREAD_SAFETY_ANALYSIS ANNOTATED_ATTRIBUTE(no_thread_safety_analysis)

/// What a thread does before it takes a lock and after it has let go: nothing. A build that looks
/// for races defines it otherwise.
#if !defined(KIROWEB_LOCK_BOUNDARY)
#define KIROWEB_LOCK_BOUNDARY() static_cast<void>(0)
#endif

namespace annotated {

class ANNOTATED_ATTRIBUTE(capability("mutex")) Mutex {
  public:
#if defined(KIROWEB_CHECKED)
    explicit Mutex(Rank rank = Rank::kLeaf) noexcept : fRank(rank) {}
    void lock() ANNOTATED_ATTRIBUTE(acquire_capability()) {
        HeldRanks::ofThisThread().push(fRank);
        KIROWEB_LOCK_BOUNDARY();
        fMutex.lock();
    }
    void unlock() ANNOTATED_ATTRIBUTE(release_capability()) {
        fMutex.unlock();
        HeldRanks::ofThisThread().pop(fRank);
        KIROWEB_LOCK_BOUNDARY();
    }
#else
    explicit Mutex(Rank /*rank*/ = Rank::kLeaf) noexcept {}
    void lock() ANNOTATED_ATTRIBUTE(acquire_capability()) { fMutex.lock(); }
    void unlock() ANNOTATED_ATTRIBUTE(release_capability()) { fMutex.unlock(); }
#endif
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    ~Mutex() = default;

    /// For a condition variable, which unlocks and locks behind the analysis's back.
    std::mutex& native() { return fMutex; }

  private:
    std::mutex fMutex;
#if defined(KIROWEB_CHECKED)
    const Rank fRank;
#endif
};

/// Holds a `Mutex` for the length of a scope.
class ANNOTATED_ATTRIBUTE(scoped_lockable) Lock {
  public:
    explicit Lock(Mutex& mutex) ANNOTATED_ATTRIBUTE(acquire_capability(mutex)) : fMutex(mutex) {
        fMutex.lock();
    }
    ~Lock() ANNOTATED_ATTRIBUTE(release_capability()) { fMutex.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    Mutex& fMutex;
};

}  // namespace annotated
