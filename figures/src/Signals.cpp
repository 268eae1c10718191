#include "Signals.hpp"

#include <system_error>

#include "annotated/Mutex.hpp"
#include "process/Immortal.hpp"
#include "process/Thread.hpp"

namespace kirofigures::detail {

namespace {

bool isIgnored(int signal) {
    struct sigaction known {};
    return sigaction(signal, nullptr, &known) == 0 && known.sa_handler == SIG_IGN;
}

}  // namespace

std::shared_ptr<Signals> Signals::shared() {
    struct Known {
        annotated::Mutex mutex;
        std::weak_ptr<Signals> signals GUARDED_BY(mutex);
    };
    static Immortal<Known> known;
    Known& one = *known;
    const annotated::Lock lock(one.mutex);
    auto signals = one.signals.lock();
    if (signals == nullptr) {
        signals.reset(new Signals);
        one.signals = signals;
    }
    return signals;
}

Signals::Signals() {
    sigemptyset(&fSet);
    for (const int signal : {SIGINT, SIGTERM}) {
        if (isIgnored(signal)) continue;
        sigaddset(&fSet, signal);
        fOne = signal;
    }
    if (fOne == 0) return;
    pthread_sigmask(SIG_BLOCK, &fSet, &fBefore);
    try {
        fThread = process::makeThread("signals", [this] { listen(); });
    } catch (const std::system_error&) {
        pthread_sigmask(SIG_SETMASK, &fBefore, nullptr);
        throw;
    }
}

Signals::~Signals() {
    if (fOne == 0) return;
    fIsEnding = true;
    pthread_kill(fThread.native_handle(), fOne);
    fThread.join();
    // From here on a signal does what it did before.
    pthread_sigmask(SIG_SETMASK, &fBefore, nullptr);
}

void Signals::listen() {
    for (;;) {
        int signal = 0;
        sigwait(&fSet, &signal);
        if (fIsEnding) return;
        if (!fCame.exchange(true)) continue;
        // As if it had come to a thread that does not block it.
        std::signal(signal, SIG_DFL);
        pthread_sigmask(SIG_UNBLOCK, &fSet, nullptr);
        std::raise(signal);
    }
}

}  // namespace kirofigures::detail
