#include "Interruption.hpp"

#include <unistd.h>

#include <csignal>

#include "Browser.hpp"
#include "Draft.hpp"
#include "process/Thread.hpp"

namespace recording_tool {

namespace {

sigset_t theSignals() noexcept {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
    return signals;
}

}  // namespace

Interruption::Interruption() {
    const auto signals = theSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    fThread = process::makeThread("signals", [this] { await(); });
}

Interruption::~Interruption() {
    fIsOver = true;
    pthread_kill(fThread.native_handle(), SIGHUP);
    fThread.join();
}

void Interruption::await() noexcept {
    const auto signals = theSignals();
    int number = 0;
    sigwait(&signals, &number);
    if (fIsOver) return;
    Browser::killAny();
    Draft::abandonAll();
    // Whoever waits for the program learns that it was a signal.
    std::signal(number, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    ::kill(::getpid(), number);
}

}  // namespace recording_tool
