#include "Progress.hpp"

#include <unistd.h>

#include <iostream>

namespace monitor {

using std::chrono::steady_clock;

namespace {

constexpr std::chrono::milliseconds kOnTerminal{100};
constexpr std::chrono::seconds kElsewhere{5};

}  // namespace

Progress::Progress(std::optional<std::uint64_t> framesExpected)
    : fExpected(framesExpected),
      fIsTerminal(::isatty(STDERR_FILENO) == 1),
      fNext(steady_clock::now() + (fIsTerminal ? steady_clock::duration::zero() : kElsewhere)) {}

void Progress::frameOver(std::uint64_t frames) {
    const auto now = steady_clock::now();
    if (now < fNext && frames != fExpected) return;
    fNext = now + (fIsTerminal ? steady_clock::duration(kOnTerminal) : kElsewhere);
    show(frames);
}

void Progress::show(std::uint64_t frames) const {
    std::cerr << (fIsTerminal ? "\r" : "") << "frame " << frames;
    if (fExpected) std::cerr << " of " << *fExpected;
    std::cerr << (fIsTerminal ? " " : "\n") << std::flush;
}

void Progress::end() const {
    if (fIsTerminal) std::cerr << '\n';
}

}  // namespace monitor
