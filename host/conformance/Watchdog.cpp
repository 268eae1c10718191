#include "Watchdog.hpp"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace conformance {
namespace {

std::chrono::seconds limit() {
    constexpr int kUsual = 20;
    const char* const text = std::getenv("KIROWEB_CONFORMANCE_LIMIT");
    const int given = text != nullptr ? std::atoi(text) : 0;
    return std::chrono::seconds(given > 0 ? given : kUsual);
}

}  // namespace

Watchdog::Watchdog() : fLimit(limit()), fThread([this] { run(); }) {}

Watchdog::~Watchdog() {
    {
        const std::lock_guard lock(fMutex);
        fEnds = true;
        fChanged.notify_all();
    }
    fThread.join();
}

void Watchdog::OnTestStart(const testing::TestInfo& test) {
    watch(std::string(test.test_suite_name()) + "." + test.name());
}

void Watchdog::OnTestEnd(const testing::TestInfo& /*test*/) { watch({}); }

void Watchdog::watch(std::string test) {
    const std::lock_guard lock(fMutex);
    fTest = std::move(test);
    fChanged.notify_all();
}

void Watchdog::run() {
    std::unique_lock lock(fMutex);
    while (!fEnds) {
        const auto test = fTest;
        const auto hasChanged = [&] { return fEnds || fTest != test; };
        if (test.empty()) {
            fChanged.wait(lock, hasChanged);
        } else if (!fChanged.wait_for(lock, fLimit, hasChanged)) {
            std::printf("[  FAILED  ] %s (it has not ended within %d s)\n", test.c_str(),
                        static_cast<int>(fLimit.count()));
            std::fflush(stdout);
            std::_Exit(1);
        }
    }
}

}  // namespace conformance
