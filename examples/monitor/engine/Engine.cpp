#include "engine/Engine.hpp"

#include <string>
#include <utility>

#include "Contract.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "engine/DataSet.hpp"
#include "engine/EcgFigure.hpp"
#include "engine/Recorder.hpp"
#include "engine/Schedule.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/WebBlockingOperation.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"
#include "kiroutils/KiroTerminatingCondition.hpp"

namespace monitor::engine {

using kiro::web::WebBlockingOperation;
using kiro::web::binary::BinaryStreamLifeCycle;
using std::chrono::steady_clock;

namespace {

template <typename Key>
using WaitEnded = bedrock::core::except::Exception<Key, kiroutils::TerminatingConditionException>;
using Reconnected = WaitEnded<component_Quarn::catalog_graphics::key_reconnect>;
using NewView = WaitEnded<component_Quarn::catalog_graphics::key_newView>;

/// Ends a wait for an event that came after the frame was begun and before the wait listened.
struct ClientBegunAnew {
    ClientWatch::Events events;
};

template <typename Value>
void keepLatest(std::deque<Value>& values, const Value& value) {
    constexpr std::size_t kMost = 10'000;
    if (values.size() == kMost) values.pop_front();
    values.push_back(value);
}

std::chrono::microseconds since(steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start);
}

}  // namespace

Engine::BlockStream::BlockStream() {
    BinaryStreamLifeCycle::initBinaryStream(contract::kBlockChannel);
}

Engine::BlockStream::~BlockStream() {
    try {
        BinaryStreamLifeCycle::destroyBinaryStream(contract::kBlockChannel);
    } catch (...) {  // a destructor has nobody to tell
    }
}

Engine::Engine(const DataSet& data, Recorder* recorder, Hooks hooks)
    : fRecorder(recorder),
      fHooks(std::move(hooks)),
      fSender(std::make_shared<kiro::web::BootstrappingCommandSender>(contract::kCommandChannel)),
      fRequestor(std::make_unique<kiro::web::PubSubACTRequestor>(
          fSender, contract::kReturnChannel, "monitor", contract::kClientKind, true)),
      fErrors(fHooks.clientError),
      fOut(senders(), fHooks.countsTraffic) {
    fSender->setBinaryChannelName(contract::kBlockChannel);
    fRequestor->enableTimeStampLogging(true);
    auto quakes = std::make_unique<QuakeFigure>(data);
    fQuakes = quakes.get();
    fFigures.push_back(std::make_unique<EcgFigure>(data.ecg));
    fFigures.push_back(std::move(quakes));
}

Engine::~Engine() = default;

Outlet::Senders Engine::senders() const {
    Outlet::Senders all{fSender};
    if (fRecorder != nullptr) all.push_back(fRecorder->sender());
    return all;
}

EngineResult Engine::run(const Pace& pace) {
    const auto begin = steady_clock::now();
    // Of no use when frames go as fast as possible.
    Schedule schedule(begin, pace.speed > 0 ? pace.speed : 1);
    const auto over = [&](std::uint64_t frame) {
        return (pace.frames && frame >= *pace.frames) ||
               (pace.duration && steady_clock::now() - begin >= *pace.duration);
    };
    for (std::uint64_t frame = 0; !over(frame); ++frame) {
        if (pace.speed > 0) {
            waitUntil("pace", [due = schedule.due(frame)] { return steady_clock::now() >= due; });
            schedule.begin(frame, steady_clock::now());
        }
        waitForClient();
        if (isStopped() || !drawFrame(frame)) {
            fResult.interrupted = true;
            break;
        }
        ++fResult.frames;
        if (fHooks.frameOver) fHooks.frameOver(fResult);
    }
    fResult.traffic = fOut.countTraffic();
    return std::move(fResult);
}

bool Engine::drawFrame(std::uint64_t frame) {
    if (const auto pick = fPicks.take()) fQuakes->pick(*pick);
    for (const auto& figure : fFigures) figure->advance(frame);
    for (std::uint64_t attempt = 1;; ++attempt) {
        const std::uint64_t errors = fErrors.count();
        sendFrame(frame, attempt);
        switch (flush()) {
            case FlushEnd::kComplete:
                // The client reports what went wrong before it answers.
                ++(fErrors.count() == errors ? fResult.complete : fResult.failed);
                return true;
            case FlushEnd::kTimedOut:
                // The commands are on their way or queued, in order: only the answer is missing.
                ++fResult.timedOut;
                if (fHooks.timedOut) {
                    fHooks.timedOut(fSender->queryCommandSenderReadyStatus(), fResult.latencies);
                }
                return true;
            case FlushEnd::kClientGone:
                ++fResult.clientsGone;
                return true;
            case FlushEnd::kStopped:
                return false;
            case FlushEnd::kReconnection:
                ++fResult.endedByReconnection;
                break;
            case FlushEnd::kNewView:
                ++fResult.endedByNewView;
                break;
        }
    }
}

void Engine::sendFrame(std::uint64_t frame, std::uint64_t attempt) {
    const bool whole = fClient.take().any() || !std::exchange(fClientKnowsFigures, true);
    fOut.command("beginFrame", [&](kiro::web::JSONPayload& payload) {
        payload.addDataToPayload("frame", frame);
        payload.addDataToPayload("attempt", attempt);
        payload.addDataToPayload("whole", whole);
    });
    for (const auto& figure : fFigures) {
        if (whole) {
            figure->sendWhole(fOut);
        } else {
            figure->sendNew(fOut);
        }
    }
    fRequestor->setAnnotation("frame " + std::to_string(frame) + ", attempt " +
                              std::to_string(attempt));
    if (fRecorder != nullptr) fRecorder->write();
}

Engine::FlushEnd Engine::flush() {
    fRequestor->clearTimeStampLog();
    const auto start = steady_clock::now();
    fRequestor->sendACT();
    fOut.countTraffic();
    if (fResult.frames == 0) noteBacklog();
    const FlushEnd end = waitForToken();
    if (end == FlushEnd::kComplete) {
        keepLatest(fResult.flushes, since(start));
        if (const auto latency = latencyOf(fRequestor->getTimeStampLog().back())) {
            keepLatest(fResult.latencies, *latency);
        }
    }
    fSender->removeFinishedAsyncTasksFromCache();
    return end;
}

Engine::FlushEnd Engine::waitForToken() {
    try {
        WebBlockingOperation::waitOrThrow(
            "drawnow",
            [this] { return !fRequestor->isACTPending() || isClientGone() || givesFrameUp(); },
            fClient.status(), [this] { pump(); });
    } catch (const Reconnected&) {
        fRequestor->discardAllTokens();
        return FlushEnd::kReconnection;
    } catch (const NewView&) {
        fRequestor->discardAllTokens();
        return FlushEnd::kNewView;
    } catch (const ClientBegunAnew& begunAnew) {
        fRequestor->discardAllTokens();
        return begunAnew.events.reconnection ? FlushEnd::kReconnection : FlushEnd::kNewView;
    }
    const bool pending = fRequestor->isACTPending();
    fRequestor->discardAllTokens();
    // Only a token that was returned has left its stamps.
    if (fRequestor->hasTimeStamps()) return FlushEnd::kComplete;
    if (!pending) return FlushEnd::kTimedOut;
    return givesFrameUp() ? FlushEnd::kStopped : FlushEnd::kClientGone;
}

void Engine::pump() const {
    if (fHooks.waiting) fHooks.waiting();
    // The wait itself reports what comes while it listens, and looks before it pumps.
    if (const auto events = fClient.peek(); events.any()) throw ClientBegunAnew{events};
}

void Engine::noteBacklog() {
    if (!fSender->queryCommandSenderReadyStatus()) fResult.backlog = fOut.countTraffic();
}

void Engine::waitForClient() {
    while (isClientGone() && !isStopped()) {
        waitUntil("client", [this] { return !isClientGone(); });
    }
}

void Engine::waitUntil(const char* name, const std::function<bool()>& condition) {
    try {
        WebBlockingOperation::waitOrThrow(
            name, [this, &condition] { return isStopped() || condition(); }, fClient.status(), {});
    } catch (const kiroutils::TerminatingConditionException&) {
        // If a client began anew, its watch has seen it too, and the next frame is sent whole. A
        // wait also ends after twenty minutes, and is then begun again.
    }
}

}  // namespace monitor::engine
