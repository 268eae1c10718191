#pragma once

#include <mutex>

/// Clang's thread-safety annotations, and a mutex that carries them. Other compilers see plain
/// `std::mutex`.
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

namespace annotated {

class ANNOTATED_ATTRIBUTE(capability("mutex")) Mutex {
  public:
    void lock() ANNOTATED_ATTRIBUTE(acquire_capability()) { fMutex.lock(); }
    void unlock() ANNOTATED_ATTRIBUTE(release_capability()) { fMutex.unlock(); }

    /// For a condition variable, which unlocks and locks behind the analysis's back.
    std::mutex& native() { return fMutex; }

  private:
    std::mutex fMutex;
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
