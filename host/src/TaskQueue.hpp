#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace kirohost::detail {

/// Where the interpreter stands when it takes tasks from its queue.
enum class Taking { kAtPrompt, kInsideWait };

class TaskQueue;

/// While it lives, a task that the calling thread queues wakes its interpreter at the end only: who
/// queues it may hold locks that the woken thread would run into. They do not nest.
class LateWakeup {
  public:
    LateWakeup() noexcept;
    ~LateWakeup();
    LateWakeup(const LateWakeup&) = delete;
    LateWakeup& operator=(const LateWakeup&) = delete;

  private:
    friend class TaskQueue;
    std::shared_ptr<TaskQueue> fQueue;  ///< whose interpreter is to be woken
};

/// The tasks of one interpreter context. Any thread queues, the interpreter thread takes.
class TaskQueue final : public taskrouter::TaskRouter,
                        public std::enable_shared_from_this<TaskQueue> {
  public:
    /// The number of tasks queued up to now, those that were taken since included.
    [[nodiscard]] std::uint64_t numQueued() const;
    /// Takes and runs one task after the other, oldest first, of those that were queued before
    /// the call; returns how many ran.
    std::size_t run(Taking taking);
    /// Returns when more than `numSeen` tasks have been queued, at the latest after `atMost`.
    void awaitTaskBeyond(std::uint64_t numSeen, std::chrono::milliseconds atMost);
    /// Drops the queued tasks; later ones are dropped at once.
    void close();
    [[nodiscard]] std::vector<PendingTask> pending() const;
    void enqueue(taskrouter::QueuedTask&& task) { doEnqueue(std::move(task)); }

  protected:
    void doEnqueue(taskrouter::QueuedTask&& task) override;

  private:
    friend class LateWakeup;
    struct Entry {
        taskrouter::QueuedTask task;
        std::uint64_t number = 0;
    };
    using Entries = std::deque<Entry>;

    std::optional<taskrouter::QueuedTask> take(Taking taking, std::uint64_t numLimit);

    mutable annotated::Mutex fMutex;
    std::condition_variable fQueued;
    std::uint64_t fNumQueued GUARDED_BY(fMutex) = 0;
    bool fClosed GUARDED_BY(fMutex) = false;
    /// Apart, so that a wait finds the tasks that it may run without looking through the others.
    Entries fWhenIdle GUARDED_BY(fMutex);
    Entries fAtPrompt GUARDED_BY(fMutex);
};

}  // namespace kirohost::detail
