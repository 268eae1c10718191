#include "FailingThreads.hpp"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <memory>

namespace {

constinit thread_local bool failing = false;
constinit std::atomic<std::size_t> ended = 0;
constinit std::atomic<std::size_t> joined = 0;

/// What a thread was made for.
struct Start {
    void* (*function)(void*);
    void* argument;
};

void* runCounted(void* start) {
    const Start what = *std::unique_ptr<Start>(static_cast<Start*>(start));
    void* const result = what.function(what.argument);
    ++ended;
    ended.notify_all();
    return result;
}

/// The function of this name that would have been called without this file: a sanitizer's, or the
/// C library's.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* options,
                                                             void* (*function)(void*),
                                                             void* argument) noexcept {
    if (failing) return EAGAIN;
    static auto* const create = next<decltype(pthread_create)>("pthread_create");
    auto start = std::make_unique<Start>(Start{function, argument});
    const int error = create(thread, options, &runCounted, start.get());
    if (error == 0) static_cast<void>(start.release());  // the thread's now
    return error;
}

extern "C" [[gnu::visibility("default")]] int pthread_join(pthread_t thread, void** result) {
    static auto* const join = next<decltype(pthread_join)>("pthread_join");
    const int error = join(thread, result);
    if (error == 0) ++joined;
    return error;
}

namespace support {

void withoutThreads(const std::function<void()>& call) {
    failing = true;
    call();
    failing = false;
}

std::size_t endedThreads() { return ended; }
std::size_t joinedThreads() { return joined; }

void awaitEndedThreads(std::size_t count) {
    for (auto now = ended.load(); now < count; now = ended.load()) ended.wait(now);
}

}  // namespace support
