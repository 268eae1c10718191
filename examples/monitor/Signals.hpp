#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace monitor {

/// Takes SIGINT and SIGTERM while it lives.
class Signals {
  public:
    /// `told` is called when one comes, on a thread of this object's own.
    /// REQUIRES: made before any other thread, which would take the signals otherwise.
    explicit Signals(std::function<void()> told);
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Whether one has come. Any thread.
    [[nodiscard]] bool came() const { return fCame; }

  private:
    void listen();

    const std::function<void()> fTold;
    sigset_t fSet{};
    std::atomic<bool> fCame = false;
    std::atomic<bool> fEnding = false;
    std::thread fThread;
};

}  // namespace monitor
