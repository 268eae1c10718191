#include "FailingThreads.hpp"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "process/Immortal.hpp"

namespace {

constinit thread_local bool failing = false;

struct Counts {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t ended = 0;
    std::size_t joined = 0;
};

Counts& counts() {
    static Immortal<Counts> instance;
    return *instance;
}

/// What a thread was made for.
struct Start {
    void* (*function)(void*);
    void* argument;
};

void* runCounted(void* start) {
    const Start what = *std::unique_ptr<Start>(static_cast<Start*>(start));
    void* const result = what.function(what.argument);
    auto& now = counts();
    const std::lock_guard lock(now.mutex);
    ++now.ended;
    now.changed.notify_all();
    return result;
}

/// The function of this name that would have been called without this file: a sanitizer's, or the
/// C library's.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* options,
                                                                     void* (*function)(void*),
                                                                     void* argument) noexcept {
    if (failing) return EAGAIN;
    static auto* const create = next<decltype(pthread_create)>("pthread_create");
    auto start = std::make_unique<Start>(Start{function, argument});
    const int result = create(thread, options, &runCounted, start.get());
    if (result == 0) static_cast<void>(start.release());  // the thread's now
    return result;
}

extern "C" __attribute__((visibility("default"))) int pthread_join(pthread_t thread,
                                                                   void** result) {
    static auto* const join = next<decltype(pthread_join)>("pthread_join");
    const int error = join(thread, result);
    auto& now = counts();
    const std::lock_guard lock(now.mutex);
    if (error == 0) ++now.joined;
    return error;
}

namespace support {

FailingThreads::FailingThreads() { failing = true; }
FailingThreads::~FailingThreads() { failing = false; }

ThreadWatch::ThreadWatch() {
    auto& now = counts();
    const std::lock_guard lock(now.mutex);
    fEndedBefore = now.ended;
    fJoinedBefore = now.joined;
}

void ThreadWatch::awaitEnded(std::size_t count) const {
    auto& now = counts();
    std::unique_lock lock(now.mutex);
    while (now.ended < fEndedBefore + count) now.changed.wait(lock);
}

std::size_t ThreadWatch::joined() const {
    auto& now = counts();
    const std::lock_guard lock(now.mutex);
    return now.joined - fJoinedBefore;
}

}  // namespace support
