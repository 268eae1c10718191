#include "Signals.hpp"

#include <utility>

namespace monitor {

Signals::Signals(std::function<void()> told) : fTold(std::move(told)) {
    sigemptyset(&fSet);
    sigaddset(&fSet, SIGINT);
    sigaddset(&fSet, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &fSet, nullptr);
    fThread = std::thread([this] { listen(); });
}

Signals::~Signals() {
    fEnding = true;
    pthread_kill(fThread.native_handle(), SIGINT);
    fThread.join();
    // From here on a signal ends the program.
    pthread_sigmask(SIG_UNBLOCK, &fSet, nullptr);
}

void Signals::listen() {
    for (;;) {
        int signal = 0;
        sigwait(&fSet, &signal);
        if (fEnding) return;
        fCame = true;
        fTold();
    }
}

}  // namespace monitor
