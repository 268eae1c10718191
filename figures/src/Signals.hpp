#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

namespace kirofigures::detail {

/// Takes SIGINT and SIGTERM while it lives, unless the process was started to ignore them, as a
/// shell starts what runs in the background. The second one that comes ends the process as if
/// nobody took it, so that an engine which looks at nothing can be stopped.
class Signals {
  public:
    /// The process's one, shared by all windows that want it.
    /// REQUIRES: made before any other thread, which would take the signals otherwise.
    [[nodiscard]] static std::shared_ptr<Signals> shared();

    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Whether one has come. Any thread.
    [[nodiscard]] bool came() const noexcept { return fCame; }

  private:
    Signals();
    void listen();

    sigset_t fSet{};
    sigset_t fBefore{};
    std::atomic<bool> fCame = false;
    std::atomic<bool> fIsEnding = false;
    int fOne = 0;  ///< of those that are taken; 0: none is
    std::thread fThread;
};

}  // namespace kirofigures::detail
