#pragma once

#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdio>

namespace simulate {

constexpr unsigned kHang = 30;  // seconds, for one schedule

inline volatile std::sig_atomic_t isStopping = 0;
inline unsigned long long seedNow = 0;

/// A crash, a broken precondition or a hang: whose, is said before the process ends.
inline void onCrash(int number) {
    char line[96];
    const int size = std::snprintf(line, sizeof line, "failed: seed %llu: signal %d%s\n", seedNow,
                                   number, number == SIGALRM ? " (it hangs)" : "");
    static_cast<void>(::write(STDOUT_FILENO, line, static_cast<std::size_t>(size)));
    ::_exit(1);
}

/// To be called once, first.
inline void handleSignals() {
    for (const int number : {SIGSEGV, SIGABRT, SIGALRM, SIGBUS, SIGFPE})
        std::signal(number, onCrash);
    for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { isStopping = 1; });
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

}  // namespace simulate
