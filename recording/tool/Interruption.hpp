#pragma once

#include <atomic>
#include <thread>

namespace recording_tool {

/// While there is one, a program that is asked to end (SIGINT, SIGTERM, SIGHUP) ends its
/// browser and removes its drafts first. Made before any other thread, which all leave these
/// signals to it.
class Interruption {
  public:
    /// Throws std::system_error when there is no thread left.
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

  private:
    void await() noexcept;

    std::atomic<bool> fIsOver{false};
    std::thread fThread;
};

}  // namespace recording_tool
