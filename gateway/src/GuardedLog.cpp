#include "GuardedLog.hpp"

#include <algorithm>
#include <exception>
#include <string>

#include "checked/Require.hpp"
#include "kiroutils/Logger.hpp"

namespace kirogateway {
namespace {

constexpr double kLinesPerSecond = 5;

}  // namespace

void GuardedLog::write(std::string_view event, std::string_view detail, TimePoint now) noexcept {
    std::size_t leftOut = 0;
    {
        annotated::Lock lock(fMutex);
        if (!mayWriteLocked(now)) return;
        std::swap(leftOut, fLeftOut);
    }
    try {
        writeLine(event, detail, leftOut);
    } catch (...) {
        // Those who log do so while something fails, on a thread that must go on.
        annotated::Lock lock(fMutex);
        fLeftOut += leftOut + 1;
    }
}

void GuardedLog::writeCaught(std::string_view event) noexcept {
    KIROWEB_REQUIRE(std::current_exception() != nullptr);
    try {
        throw;
    } catch (const std::exception& error) {
        write(event, error.what());
    } catch (...) {
        write(event, "an exception of no known kind");
    }
}

void GuardedLog::writeLine(std::string_view event, std::string_view detail, std::size_t leftOut) {
    std::string line = fWhose;
    line += event;
    if (!detail.empty()) line += ": " + escaped(detail);
    if (leftOut > 0) line += " (" + std::to_string(leftOut) + " lines left out before)";
    kiroutils::Logger::instance().log("gateway", line);
}

bool GuardedLog::mayWriteLocked(TimePoint now) {
    const std::chrono::duration<double> passed = now - fLast;
    fLast = now;
    fCredit = std::min(kBurst, fCredit + passed.count() * kLinesPerSecond);
    if (fCredit < 1) {
        ++fLeftOut;
        return false;
    }
    fCredit -= 1;
    return true;
}

}  // namespace kirogateway
