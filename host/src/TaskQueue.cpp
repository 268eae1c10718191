#include "TaskQueue.hpp"

#include <mutex>
#include <utility>

namespace kirohost::detail {
namespace {

thread_local LateWakeup* tLateWakeup = nullptr;

}  // namespace

LateWakeup::LateWakeup() noexcept { tLateWakeup = this; }

LateWakeup::~LateWakeup() {
    tLateWakeup = nullptr;
    if (fQueue != nullptr) fQueue->fQueued.notify_one();
}

std::uint64_t TaskQueue::numQueued() const {
    const annotated::Lock lock(fMutex);
    return fNumQueued;
}

std::size_t TaskQueue::run(Taking taking) {
    const std::uint64_t numLimit = numQueued();
    std::size_t numRun = 0;
    while (const auto task = take(taking, numLimit)) {
        task->run();
        ++numRun;
    }
    return numRun;
}

std::optional<taskrouter::QueuedTask> TaskQueue::take(Taking taking, std::uint64_t numLimit) {
    const annotated::Lock lock(fMutex);
    Entries* oldest = &fWhenIdle;
    if (taking == Taking::kAtPrompt && !fAtPrompt.empty() &&
        (fWhenIdle.empty() || fAtPrompt.front().number < fWhenIdle.front().number)) {
        oldest = &fAtPrompt;
    }
    if (oldest->empty() || oldest->front().number > numLimit) return std::nullopt;
    std::optional<taskrouter::QueuedTask> task(std::move(oldest->front().task));
    oldest->pop_front();
    return task;
}

void TaskQueue::awaitTaskBeyond(std::uint64_t numSeen, std::chrono::milliseconds atMost) {
    const auto deadline = std::chrono::steady_clock::now() + atMost;
    const annotated::Lock held(fMutex);
    std::unique_lock<std::mutex> lock(fMutex.native(), std::adopt_lock);
    while (fNumQueued <= numSeen) {
        if (fQueued.wait_until(lock, deadline) == std::cv_status::timeout) break;
    }
    lock.release();
}

void TaskQueue::close() {
    Entries dropped[2];  // destroyed without the lock, since tasks may own anything
    const annotated::Lock lock(fMutex);
    fClosed = true;
    fWhenIdle.swap(dropped[0]);
    fAtPrompt.swap(dropped[1]);
}

std::vector<PendingTask> TaskQueue::pending() const {
    std::vector<PendingTask> result;
    const annotated::Lock lock(fMutex);
    auto idle = fWhenIdle.begin();
    auto prompt = fAtPrompt.begin();
    while (idle != fWhenIdle.end() || prompt != fAtPrompt.end()) {
        const bool takeIdle =
            prompt == fAtPrompt.end() || (idle != fWhenIdle.end() && idle->number < prompt->number);
        const auto& task = takeIdle ? (idle++)->task : (prompt++)->task;
        result.push_back({task.id, task.source, static_cast<int>(task.options.whenToDequeue)});
    }
    return result;
}

void TaskQueue::doEnqueue(taskrouter::QueuedTask&& task) {
    {
        const annotated::Lock lock(fMutex);
        if (fClosed) return;
        const bool whenIdle = task.options.whenToDequeue == taskrouter::WhenToDequeue::kWhenIdle;
        (whenIdle ? fWhenIdle : fAtPrompt).push_back({std::move(task), ++fNumQueued});
    }
    // After the lock is free, so that the woken thread does not run into it. The caller holds the
    // router, so the condition variable is still there.
    LateWakeup* const late = tLateWakeup;
    if (late != nullptr && late->fQueue == nullptr) late->fQueue = shared_from_this();
    if (late == nullptr || late->fQueue.get() != this) fQueued.notify_one();
}

}  // namespace kirohost::detail
