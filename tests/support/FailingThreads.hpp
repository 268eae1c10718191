#pragma once

#include <cstddef>

namespace support {

/// While it lives, the calling thread cannot make threads: `pthread_create`, interposed in the
/// program that links this, answers it EAGAIN.
class FailingThreads {
  public:
    FailingThreads();
    ~FailingThreads();
    FailingThreads(const FailingThreads&) = delete;
    FailingThreads& operator=(const FailingThreads&) = delete;
};

/// Counts the process's threads that ended and that were joined since it was made.
class ThreadWatch {
  public:
    ThreadWatch();

    /// Blocks until `count` threads have left their function.
    void awaitEnded(std::size_t count) const;
    [[nodiscard]] std::size_t joined() const;

  private:
    std::size_t fEndedBefore;
    std::size_t fJoinedBefore;
};

}  // namespace support
