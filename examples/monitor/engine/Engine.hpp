#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/ClientWatch.hpp"
#include "engine/ErrorWatch.hpp"
#include "engine/Figure.hpp"
#include "engine/Latency.hpp"
#include "engine/Outlet.hpp"
#include "engine/PickReceiver.hpp"
#include "engine/QuakeFigure.hpp"

namespace kiro::web {
class BootstrappingCommandSender;
class PubSubACTRequestor;
}  // namespace kiro::web

namespace monitor::engine {

struct DataSet;
class Recorder;

/// How long and how fast the engine draws. It stops at whichever limit comes first.
struct Pace {
    std::optional<std::uint64_t> frames;
    std::optional<std::chrono::duration<double>> duration;
    /// 1 is real time, 30 frames a second; 0 is as fast as possible.
    double speed = 1;
};

/// What happened while the engine drew.
struct EngineResult {
    /// Those that are over: complete, failed, timed out, or left without a client.
    std::uint64_t frames = 0;
    std::uint64_t complete = 0;
    std::uint64_t timedOut = 0;
    /// Answered, but the client had reported an error.
    std::uint64_t failed = 0;
    /// Given up because no client was left.
    std::uint64_t clientsGone = 0;
    /// Stopped before the pace's limits; a frame given up for that is not counted.
    bool interrupted = false;
    /// Attempts at a frame that the client's reconnection or new view ended.
    std::uint64_t endedByReconnection = 0;
    std::uint64_t endedByNewView = 0;
    /// Empty unless it was to be counted, as the backlog.
    Traffic traffic;
    /// What the sender held back when the first flush began to wait.
    Traffic backlog;
    /// The latest ten thousand complete frames: from the sending of the token to the end of the
    /// wait; and the way of the token, if the client stamps what it answers.
    std::deque<std::chrono::microseconds> flushes;
    std::deque<Latency> latencies;
};

/// Draws the two figures, frame by frame: commands and blocks, then a flush that waits until the
/// client has drawn them. Signal thread.
class Engine {
  public:
    /// Called on the engine's thread, unless they say otherwise; may be empty.
    struct Hooks {
        /// At intervals while a flush waits.
        std::function<void()> waiting;
        /// When a frame is over.
        std::function<void(const EngineResult& soFar)> frameOver;
        /// Whether to end now. Whoever changes the answer wakes the interpreter.
        std::function<bool()> stopped;
        /// Whether a frame under way is drawn to its end when the engine is to stop.
        bool finishesFrames = false;
        /// Whether the result has traffic and backlog, which costs each command's text once more.
        bool countsTraffic = false;
        /// Whether clients were there and none is any more. Whoever changes the answer to true
        /// wakes the interpreter.
        std::function<bool()> clientGone;
        /// When a flush has ended by time-out: whether a client had announced itself by then, and
        /// the latest flushes that did not.
        std::function<void(bool announced, const std::deque<Latency>& latest)> timedOut;
        /// When a client reports an error of its own, on the message service's thread.
        std::function<void(const std::string& error)> clientError;
    };

    /// `recorder` may be null. REQUIRES: both outlive this.
    Engine(const DataSet& data, Recorder* recorder, Hooks hooks);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Once.
    EngineResult run(const Pace& pace);

  private:
    enum class FlushEnd { kComplete, kTimedOut, kReconnection, kNewView, kClientGone, kStopped };

    /// Returns whether the frame is over; it is not if the engine was stopped meanwhile.
    bool drawFrame(std::uint64_t frame);
    void sendFrame(std::uint64_t frame, std::uint64_t attempt);
    FlushEnd flush();
    FlushEnd waitForToken();
    /// Lets time pass until there is a client again.
    void waitForClient();
    /// Waits until `condition` holds or the engine is to stop; a client that begins anew ends the
    /// wait, too.
    void waitUntil(const char* name, const std::function<bool()>& condition);
    [[nodiscard]] bool isStopped() const { return fHooks.stopped && fHooks.stopped(); }
    [[nodiscard]] bool givesFrameUp() const { return !fHooks.finishesFrames && isStopped(); }
    [[nodiscard]] bool isClientGone() const { return fHooks.clientGone && fHooks.clientGone(); }
    /// Runs while a flush waits.
    void pump() const;
    void noteBacklog();
    Outlet::Senders senders() const;

    Recorder* const fRecorder;
    const Hooks fHooks;
    /// Made before the sender, whose binary channel it prepares, and let go of after it.
    struct BlockStream {
        BlockStream();
        ~BlockStream();
        BlockStream(const BlockStream&) = delete;
        BlockStream& operator=(const BlockStream&) = delete;
    } fBlockStream;
    const std::shared_ptr<kiro::web::BootstrappingCommandSender> fSender;
    const std::unique_ptr<kiro::web::PubSubACTRequestor> fRequestor;
    ClientWatch fClient;
    ErrorWatch fErrors;
    PickReceiver fPicks;
    Outlet fOut;
    QuakeFigure* fQuakes = nullptr;  // one of fFigures
    std::vector<std::unique_ptr<Figure>> fFigures;
    bool fClientKnowsFigures = false;
    EngineResult fResult;
};

}  // namespace monitor::engine
