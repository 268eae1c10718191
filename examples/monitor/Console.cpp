#include "Console.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <system_error>
#include <utility>

#include "text/Escape.hpp"

namespace monitor {

namespace {

constexpr std::uint64_t kMostLines = 5;
constexpr std::size_t kMostBytes = 300;  // of a text, before they are escaped

}  // namespace

void say(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::cerr << ("monitor: " + text + '\n') << std::flush;
}

// Not through a stream, which forgets why it failed.
void print(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            throw OutputError("standard output cannot be written: " +
                              std::generic_category().message(errno));
        }
    }
}

ErrorLines::ErrorLines(std::function<void(std::string)> say, std::function<Clock::time_point()> now)
    : fSay(std::move(say)), fNow(std::move(now)) {}

void ErrorLines::add(std::string_view error) {
    const annotated::Lock lock(fMutex);
    lookLocked();
    if (++fCount <= kMostLines) fSay("script error " + text::escaped(error, kMostBytes));
}

void ErrorLines::look() {
    const annotated::Lock lock(fMutex);
    lookLocked();
}

void ErrorLines::end() {
    const annotated::Lock lock(fMutex);
    endLocked();
}

void ErrorLines::lookLocked() {
    constexpr std::chrono::seconds kPeriod{1};
    const auto now = fNow();
    if (now - fSince < kPeriod) return;
    endLocked();
    fSince = now;
}

void ErrorLines::endLocked() {
    if (fCount > kMostLines) fSay(std::to_string(fCount - kMostLines) + " more script errors");
    fCount = 0;
}

}  // namespace monitor
