#pragma once

#include <cassert>
#include <condition_variable>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

namespace relay {

template <typename VALUE_TYPE>
class Future;
template <typename VALUE_TYPE>
class Promise;

/// What a promise and its future share. It is on show so that a wait of one's own can be built
/// on it: lock `mutex`, look at `ready`, wait on `condition`, which is notified once, when
/// `ready` becomes true.
template <typename VALUE_TYPE>
struct FutureState {
    std::mutex mutex;
    std::condition_variable condition;
    /// The four below are guarded by `mutex`.
    bool ready = false;
    std::optional<VALUE_TYPE> value;
    std::exception_ptr error;
    /// Runs once, outside the lock, on the thread that completes the promise.
    std::function<void()> continuation;
};

/// The reading end of a value that comes later. Movable, not copyable.
///
/// A default-constructed, moved-from or consumed future has no state (`valid()` is false).
/// Distinct futures are independent; one future is used by one thread at a time.
template <typename VALUE_TYPE>
class Future {
  public:
    using State = FutureState<VALUE_TYPE>;

    Future() noexcept = default;
    explicit Future(std::shared_ptr<State> state) noexcept : fState(std::move(state)) {}
    Future(Future&&) noexcept = default;
    Future& operator=(Future&&) noexcept = default;
    Future(const Future&) = delete;
    Future& operator=(const Future&) = delete;
    ~Future() = default;

    [[nodiscard]] bool valid() const noexcept { return fState != nullptr; }

    /// The shared state, empty when there is none.
    [[nodiscard]] const std::shared_ptr<State>& state() const noexcept { return fState; }

    /// True when a value or an error is there. REQUIRES: valid().
    [[nodiscard]] bool isReady() const {
        assert(valid());
        std::lock_guard lock(fState->mutex);
        return fState->ready;
    }

    /// Blocks until the value is there and moves it out; rethrows the error that came instead.
    /// The future has no state afterwards. REQUIRES: valid().
    VALUE_TYPE get() {
        assert(valid());
        auto state = std::move(fState);
        std::unique_lock lock(state->mutex);
        while (!state->ready) state->condition.wait(lock);
        if (state->error) std::rethrow_exception(state->error);
        return std::move(*state->value);
    }

    /// Attaches the one continuation, `callback(Future&&)`, and gives this future's state to it:
    /// the future is consumed. The callback receives the completed future. It runs at once, on
    /// the calling thread, when the future is complete already; otherwise on the thread that
    /// completes it, with no lock held. What it returns or throws completes the returned future;
    /// nothing else reports an exception.
    /// REQUIRES: valid(); no continuation was attached before.
    template <typename Callback>
    auto then(Callback callback);

  private:
    std::shared_ptr<State> fState;
};

/// Stands for the result of a continuation that returns nothing.
struct Nothing {};

/// The writing end. Movable, not copyable. Destroyed without having been set, it completes its
/// future with `std::future_error` (`broken_promise`).
template <typename VALUE_TYPE>
class Promise {
  public:
    Promise() : fState(std::make_shared<FutureState<VALUE_TYPE>>()) {}
    Promise(Promise&&) noexcept = default;
    Promise(const Promise&) = delete;
    Promise& operator=(const Promise&) = delete;
    Promise& operator=(Promise&&) = delete;
    ~Promise() {
        if (fState == nullptr) return;
        try {
            setException(
                std::make_exception_ptr(std::future_error(std::future_errc::broken_promise)));
        } catch (...) {  // a destructor has nobody to tell
        }
    }

    /// The future of this promise. Call it once, before the promise is set.
    [[nodiscard]] Future<VALUE_TYPE> getFuture() const { return Future<VALUE_TYPE>(fState); }

    /// Completes the future and runs its continuation on this thread. Any thread, once.
    void setValue(VALUE_TYPE value) {
        complete([&](FutureState<VALUE_TYPE>& state) { state.value.emplace(std::move(value)); });
    }

    /// As `setValue`, with an error.
    void setException(std::exception_ptr error) {
        complete([&](FutureState<VALUE_TYPE>& state) { state.error = std::move(error); });
    }

  private:
    template <typename Store>
    void complete(const Store& store) {
        auto state = std::move(fState);
        std::function<void()> continuation;
        {
            std::lock_guard lock(state->mutex);
            store(*state);
            state->ready = true;
            continuation.swap(state->continuation);
            state->condition.notify_all();
        }
        if (continuation) continuation();
    }

    std::shared_ptr<FutureState<VALUE_TYPE>> fState;
};

/// A future that is complete from the start.
template <typename VALUE_TYPE>
[[nodiscard]] Future<VALUE_TYPE> makeReadyFuture(VALUE_TYPE value) {
    auto state = std::make_shared<FutureState<VALUE_TYPE>>();
    state->value.emplace(std::move(value));
    state->ready = true;
    return Future<VALUE_TYPE>(std::move(state));
}

template <typename VALUE_TYPE>
template <typename Callback>
auto Future<VALUE_TYPE>::then(Callback callback) {
    using Result = std::invoke_result_t<Callback&, Future&&>;
    using Value = std::conditional_t<std::is_void_v<Result>, Nothing, Result>;
    struct Continuation {
        Callback callback;
        Promise<Value> promise;
        std::shared_ptr<State> state;
        void run() {
            try {
                if constexpr (std::is_void_v<Result>) {
                    callback(Future(std::move(state)));
                    promise.setValue({});
                } else {
                    promise.setValue(callback(Future(std::move(state))));
                }
            } catch (...) {
                promise.setException(std::current_exception());
            }
        }
    };
    assert(valid());
    auto state = std::move(fState);
    // Shared only because std::function wants a copyable target; it runs once.
    auto continuation =
        std::make_shared<Continuation>(Continuation{std::move(callback), {}, nullptr});
    auto result = continuation->promise.getFuture();
    {
        std::lock_guard lock(state->mutex);
        if (!state->ready) {
            // The state is handed over when it runs: held from the start it would own itself.
            state->continuation = [continuation, weak = std::weak_ptr<State>(state)] {
                continuation->state = weak.lock();
                continuation->run();
            };
            return result;
        }
    }
    continuation->state = std::move(state);
    continuation->run();
    return result;
}

}  // namespace relay
