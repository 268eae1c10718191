#include "Console.hpp"

#include <iostream>

namespace monitor {

namespace {

constexpr std::uint64_t kMostLines = 5;
constexpr std::size_t kMostBytes = 300;  // of a text, before they are escaped

std::string escaped(std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string line;
    for (const char character : text.substr(0, kMostBytes)) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7f) {
            line += character;
        } else {
            line += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xfU]};
        }
    }
    if (text.size() > kMostBytes) line += "...";
    return line;
}

}  // namespace

void say(const std::string& text) { std::cerr << ("monitor: " + text + '\n') << std::flush; }

void ErrorLines::add(std::string_view error) {
    const annotated::Lock lock(fMutex);
    lookLocked(Clock::now());
    if (++fCount <= kMostLines) say("script error " + escaped(error));
}

void ErrorLines::look() {
    const annotated::Lock lock(fMutex);
    lookLocked(Clock::now());
}

void ErrorLines::end() {
    const annotated::Lock lock(fMutex);
    endLocked();
}

void ErrorLines::lookLocked(Clock::time_point now) {
    constexpr std::chrono::seconds kPeriod{1};
    if (now - fSince < kPeriod) return;
    endLocked();
    fSince = now;
}

void ErrorLines::endLocked() {
    if (fCount > kMostLines) say(std::to_string(fCount - kMostLines) + " more script errors");
    fCount = 0;
}

}  // namespace monitor
