#include "GuardedLog.hpp"

#include <algorithm>

#include "kiroutils/Logger.hpp"

namespace kirogateway {
namespace {

constexpr double kBurst = 20;  // lines
constexpr double kLinesPerSecond = 5;
constexpr std::size_t kMaxText = 200;  // bytes of a peer's, before they are escaped

}  // namespace

std::string escaped(std::string_view text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string line;
    for (const char character : text.substr(0, kMaxText)) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\\') {
            line += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7f) {
            line += character;
        } else {
            line += "\\x";
            line += kDigits[byte >> 4U];
            line += kDigits[byte & 0xfU];
        }
    }
    if (text.size() > kMaxText) line += "...";
    return line;
}

void GuardedLog::write(std::string_view event, std::string_view detail,
                       TimePoint now) noexcept try {
    std::size_t suppressed = 0;
    {
        annotated::Lock lock(fMutex);
        if (!mayWriteLocked(now)) return;
        std::swap(suppressed, fSuppressed);
    }
    std::string line(event);
    if (!detail.empty()) line += ": " + escaped(detail);
    if (suppressed > 0) line += " (" + std::to_string(suppressed) + " lines left out before)";
    kiroutils::Logger::instance().log("gateway", line);
} catch (...) {  // see above
}

bool GuardedLog::mayWriteLocked(TimePoint now) {
    const std::chrono::duration<double> passed = now - fLast;
    fLast = now;
    fCredit = std::min(kBurst, fCredit + passed.count() * kLinesPerSecond);
    if (fCredit < 1) {
        ++fSuppressed;
        return false;
    }
    fCredit -= 1;
    return true;
}

}  // namespace kirogateway
