#include "kiroutils/KiroTerminatingCondition.hpp"

#include <atomic>
#include <utility>

#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace {

using TimePoint = std::chrono::steady_clock::time_point;

/// The steady clock, unless it is replaced.
class Clock {
  public:
    static Clock& instance() {
        static Immortal<Clock> immortal;
        return *immortal;
    }

    void replace(std::function<TimePoint()> function) {
        std::shared_ptr<const std::function<TimePoint()>> replacement;
        if (function) {
            replacement = std::make_shared<const std::function<TimePoint()>>(std::move(function));
        }
        const annotated::Lock lock(fMutex);
        fReplaced = replacement != nullptr;
        fReplacement.swap(replacement);
    }

    [[nodiscard]] TimePoint now() const {
        if (fReplaced) {
            if (const auto function = replacement()) return (*function)();
        }
        return std::chrono::steady_clock::now();
    }

  private:
    [[nodiscard]] std::shared_ptr<const std::function<TimePoint()>> replacement() const {
        const annotated::Lock lock(fMutex);
        return fReplacement;
    }

    std::atomic<bool> fReplaced = false;
    mutable annotated::Mutex fMutex;
    std::shared_ptr<const std::function<TimePoint()>> fReplacement GUARDED_BY(fMutex);
};

}  // namespace

namespace kirohost {

void setSteadyClock(std::function<TimePoint()> clock) {
    Clock::instance().replace(std::move(clock));
}

}  // namespace kirohost

namespace kiroutils {

struct KiroTerminatingCondition::Impl {
    /// Compared in whole seconds, which no time-out can overflow and the greatest never reaches.
    [[nodiscard]] bool timeHasPassed() const {
        const auto elapsed = Clock::instance().now() - start;
        return std::chrono::floor<std::chrono::seconds>(elapsed) >= timeout;
    }

    const std::string name;
    const std::function<bool()> condition;
    const std::chrono::seconds timeout;
    const TimePoint start = Clock::instance().now();
    bool timedOut = false;
};

KiroTerminatingCondition::KiroTerminatingCondition(const std::string& name,
                                                   std::function<bool()> condition,
                                                   std::chrono::seconds timeout)
    : fImpl(new Impl{name, std::move(condition), timeout}) {}

KiroTerminatingCondition::~KiroTerminatingCondition() = default;

bool KiroTerminatingCondition::shouldTerminate() {
    fImpl->timedOut = false;
    if (fImpl->condition && fImpl->condition()) return true;
    fImpl->timedOut = fImpl->timeHasPassed();
    return fImpl->timedOut;
}

bool KiroTerminatingCondition::doThrowIfError() { return false; }

const std::string& KiroTerminatingCondition::name() const noexcept { return fImpl->name; }

bool KiroTerminatingCondition::hasTimedOut() const noexcept { return fImpl->timedOut; }

std::chrono::seconds KiroTerminatingCondition::timeout() const noexcept { return fImpl->timeout; }

}  // namespace kiroutils
