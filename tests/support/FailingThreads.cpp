#include "FailingThreads.hpp"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <string>

namespace {

constinit thread_local bool failing = false;
constinit std::atomic<std::size_t> joinedCount = 0;

/// The function of this name that would have been called without this file: a sanitizer's, which
/// may be in the program itself, or the C library's.
template <typename Function>
Function* next(const std::string& name) {
    void* const sanitizers = dlsym(RTLD_DEFAULT, ("__interceptor_" + name).c_str());
    return reinterpret_cast<Function*>(sanitizers != nullptr ? sanitizers
                                                             : dlsym(RTLD_NEXT, name.c_str()));
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* options,
                                                             void* (*function)(void*),
                                                             void* argument) noexcept {
    static auto* const create = next<decltype(pthread_create)>("pthread_create");
    return failing ? EAGAIN : create(thread, options, function, argument);
}

extern "C" [[gnu::visibility("default")]] int pthread_join(pthread_t thread, void** result) {
    static auto* const join = next<decltype(pthread_join)>("pthread_join");
    const int error = join(thread, result);
    if (error == 0) ++joinedCount;
    return error;
}

namespace support {

void withoutThreads(const std::function<void()>& call) {
    failing = true;
    call();
    failing = false;
}

std::size_t joinedThreads() { return joinedCount; }

}  // namespace support
