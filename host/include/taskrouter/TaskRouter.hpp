#pragma once

#define BOOST_THREAD_VERSION 4
#include <boost/thread/future.hpp>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "kirohost/Export.hpp"

namespace taskrouter {

/// When a queued task may run.
enum class WhenToDequeue : int {
    kAtPrompt = 0,  ///< only when the interpreter is idle, never inside a blocking wait
    kWhenIdle = 1,  ///< when the interpreter is idle or in a blocking wait
};

/// How a task is to be run.
struct RunOptions {
    WhenToDequeue whenToDequeue = WhenToDequeue::kAtPrompt;
    /// Shown in diagnostics; may be empty.
    std::string name;
};

/// Why a task could not be run.
class KIROHOST_VISIBLE RuntimeException : public std::runtime_error {
  public:
    RuntimeException(const std::string& message, int status)
        : std::runtime_error(message), fStatus(status) {}
    /// Execution status; 2 means that there was nowhere to run.
    [[nodiscard]] int status() const noexcept { return fStatus; }

  private:
    int fStatus;
};

/// A request to call a function on the interpreter thread.
template <typename Result>
struct FcnCmdRequest {
    std::function<Result()> function;
};

/// A request with its promise and the source that asked for it. Movable. Destroyed unrun, it breaks
/// its promise, without needing memory for that.
template <typename Result>
class PackagedTaskIIP {
  public:
    PackagedTaskIIP(FcnCmdRequest<Result> request, std::string source)
        : fBroken(&brokenPromise()), fRequest(std::move(request)), fSource(std::move(source)) {}
    PackagedTaskIIP(PackagedTaskIIP&& other) noexcept
        : fBroken(std::exchange(other.fBroken, nullptr)),
          fRequest(std::move(other.fRequest)),
          fSource(std::move(other.fSource)),
          fPromise(std::move(other.fPromise)) {}
    PackagedTaskIIP(const PackagedTaskIIP&) = delete;
    PackagedTaskIIP& operator=(const PackagedTaskIIP&) = delete;
    PackagedTaskIIP& operator=(PackagedTaskIIP&&) = delete;
    ~PackagedTaskIIP() {
        if (fBroken != nullptr) fPromise.set_exception(*fBroken);
    }

    [[nodiscard]] boost::future<Result> getFuture() { return fPromise.get_future(); }
    [[nodiscard]] const std::string& source() const noexcept { return fSource; }

    /// Runs the request and completes the promise, with what it throws if it does. Once.
    void run() {
        fBroken = nullptr;
        try {
            if constexpr (std::is_void_v<Result>) {
                fRequest.function();
                fPromise.set_value();
            } else {
                fPromise.set_value(fRequest.function());
            }
        } catch (...) {
            // Not boost::current_exception(), which slices what derives from a standard exception.
            fPromise.set_exception(boost::exception_ptr(std::current_exception()));
        }
    }

  private:
    /// Made before it is needed, and never destroyed: tasks may be dropped while the process exits.
    static const boost::exception_ptr& brokenPromise() {
        static const auto* const error =
            new boost::exception_ptr(boost::copy_exception(boost::broken_promise()));
        return *error;
    }

    /// What the promise gets from the destructor; null when the task has run or moved on.
    const boost::exception_ptr* fBroken;
    FcnCmdRequest<Result> fRequest;
    std::string fSource;
    boost::promise<Result> fPromise;
};

/// A task as the queue keeps it: what runs, who asked for it, and how.
struct QueuedTask {
    std::function<void()> run;
    std::string source;
    RunOptions options;
    /// From `qvm::detail::createID()`.
    std::uint64_t id = 0;
};

/// The way to one context's interpreter thread. Any thread; it never blocks.
class KIROHOST_EXPORT TaskRouter {
  public:
    virtual ~TaskRouter();

    /// Queues the task and wakes the interpreter if it waits. The future may be dropped. A task
    /// whose context goes first is destroyed unrun, and its future reports a broken promise.
    template <typename Result>
    boost::future<Result> enqueueWithFuture(PackagedTaskIIP<Result>&& task,
                                            const RunOptions& options, std::uint64_t id) {
        auto shared = std::make_shared<PackagedTaskIIP<Result>>(std::move(task));
        auto future = shared->getFuture();
        doEnqueue({[shared] { shared->run(); }, shared->source(), options, id});
        return future;
    }

  protected:
    virtual void doEnqueue(QueuedTask&& task) = 0;
};

}  // namespace taskrouter
