#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kiro::web {
class Subscriber;
}

namespace monitor::engine {

/// Counts the errors that clients report of themselves.
class ErrorWatch {
  public:
    /// `told` is called with each error's text, as the client wrote it, on the message service's
    /// thread; it may be empty.
    explicit ErrorWatch(std::function<void(const std::string& error)> told);
    ~ErrorWatch();
    ErrorWatch(const ErrorWatch&) = delete;
    ErrorWatch& operator=(const ErrorWatch&) = delete;

    /// Any thread.
    [[nodiscard]] std::uint64_t count() const;

  private:
    struct State;
    /// Shared with the callback, which runs on the message service's thread.
    std::shared_ptr<State> fState;
    std::unique_ptr<kiro::web::Subscriber> fSubscriber;
};

}  // namespace monitor::engine
