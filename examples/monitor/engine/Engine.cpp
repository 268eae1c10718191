#include "engine/Engine.hpp"

#include <utility>

#include "engine/DataSet.hpp"
#include "engine/Schedule.hpp"
#include "kiro/web/CommandSenderInterface.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/Subscriber.hpp"
#include "kirofigures/Window.hpp"

namespace monitor::engine {

using kirofigures::Outcome;
using std::chrono::steady_clock;

Engine::Engine(kirofigures::Window& window, const DataSet& data, Hooks hooks)
    : fWindow(window),
      fHooks(std::move(hooks)),
      fEcg(window, data.ecg),
      fQuakes(window, data),
      fReconnect(window.status()->createReconnectSubscriber(
          [counts = fBeginnings](const std::string&, const kiro::web::PayloadInterface&) {
              ++counts->reconnections;
          })),
      fNewView(
          window.status()->createNewViewListener([counts = fBeginnings] { ++counts->newViews; })) {}

Engine::~Engine() = default;

EngineResult Engine::run(const Pace& pace) {
    const auto begin = steady_clock::now();
    if (pace.duration) fEnd = begin + *pace.duration;
    // Of no use when frames go as fast as possible.
    Schedule schedule(begin, pace.speed > 0 ? pace.speed : 1);
    const auto over = [&](std::uint64_t frame) {
        return (pace.frames && frame >= *pace.frames) || (fEnd && steady_clock::now() >= *fEnd);
    };
    for (std::uint64_t frame = 0; !over(frame); ++frame) {
        if (pace.speed > 0) {
            fWindow.wait(schedule.due(frame) - steady_clock::now());
            schedule.begin(frame, steady_clock::now());
        }
        if (!drawFrame(pace)) {
            fResult.interrupted = true;
            break;
        }
        ++fResult.frames;
        if (fHooks.frameOver) fHooks.frameOver(fResult);
    }
    return std::move(fResult);
}

bool Engine::drawFrame(const Pace& pace) {
    fEcg.advance();
    fQuakes.advance();
    if (fHooks.waiting) fHooks.waiting(true);
    if (isWithoutClient(pace)) {
        noteTimeout(hasAnnounced() ? "client gone" : "no client yet");
        return true;
    }
    const std::uint64_t reconnections = fBeginnings->reconnections;
    const std::uint64_t newViews = fBeginnings->newViews;
    const auto drawn = fWindow.draw();
    fResult.endedByReconnection += fBeginnings->reconnections - reconnections;
    fResult.endedByNewView += fBeginnings->newViews - newViews;
    switch (drawn.outcome) {
        case Outcome::kPainted:
        case Outcome::kHidden:
        case Outcome::kPaused:
            ++fResult.complete;
            noteLatency();
            break;
        case Outcome::kFailed:
            ++fResult.failed;  // the client reports the error by itself
            break;
        case Outcome::kLate:
            noteTimeout(drawn.reason);
            return true;
        case Outcome::kNoPage:
            ++fResult.clientsGone;
            break;
        case Outcome::kInterrupted:
        case Outcome::kUnderWay:  // never: one at a time
            return false;
    }
    if (fHooks.waiting) fHooks.waiting(false);
    return true;
}

bool Engine::isWithoutClient(const Pace& pace) {
    constexpr std::chrono::milliseconds kLook{10};
    const auto begin = steady_clock::now();
    while (fWindow.isOpen() && !isClientThere()) {
        const auto now = steady_clock::now();
        const bool isBounded = pace.timeout.count() > 0 && !hasAnnounced();
        if ((fEnd && now >= *fEnd) || (isBounded && now - begin >= pace.timeout)) return true;
        fWindow.wait(kLook);
    }
    return false;
}

bool Engine::isClientThere() const {
    return !fWindow.isServed() || (hasAnnounced() && !fWindow.isClientGone());
}

bool Engine::hasAnnounced() const { return fWindow.sender()->queryCommandSenderReadyStatus(); }

void Engine::noteTimeout(const std::string& cause) {
    ++fResult.timedOut;
    if (fHooks.timedOut) fHooks.timedOut(cause, fResult.latencies);
}

void Engine::noteLatency() {
    constexpr std::size_t kMost = 10'000;
    const auto stamps = fWindow.requestor().getTimeStampLog();
    const auto latency = stamps.empty() ? std::nullopt : latencyOf(stamps.back());
    if (!latency) return;
    if (fResult.latencies.size() == kMost) fResult.latencies.pop_front();
    fResult.latencies.push_back(*latency);
}

}  // namespace monitor::engine
