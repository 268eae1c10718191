#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace conformance {

/// Makes a hang a failure with a name: a test that does not end within the limit is reported as
/// failed, and the process ends, since nothing else ends a thread that hangs.
///
/// The limit is 20 s, or what the environment's KIROWEB_CONFORMANCE_LIMIT says in seconds.
class Watchdog final : public testing::EmptyTestEventListener {
  public:
    Watchdog();
    ~Watchdog() override;
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void OnTestStart(const testing::TestInfo& test) override;
    void OnTestEnd(const testing::TestInfo& test) override;

  private:
    void watch(std::string test);
    void run();

    const std::chrono::seconds fLimit;
    std::mutex fMutex;
    std::condition_variable fChanged;
    // Guarded by fMutex.
    std::string fTest;  ///< that runs; empty between two
    bool fEnds = false;

    std::thread fThread;  ///< the last member: it uses the others
};

}  // namespace conformance
