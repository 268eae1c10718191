#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "engine/EcgFigure.hpp"
#include "engine/Latency.hpp"
#include "engine/QuakeFigure.hpp"
#include "kiroutils/EventDispatcher.hpp"

namespace kiro::web {
class Subscriber;
}

namespace monitor::engine {

struct DataSet;

/// How long and how fast the engine draws. It stops at whichever limit comes first.
struct Pace {
    std::optional<std::uint64_t> frames{};
    std::optional<std::chrono::duration<double>> duration{};
    /// 1 is real time, 30 frames a second; 0 is as fast as possible.
    double speed = 1;
    /// How long the first page may take to come before a frame counts as timed out; 0: for ever.
    std::chrono::seconds timeout{0};
};

/// What happened while the engine drew.
struct EngineResult {
    /// Those that are over: complete, failed, timed out, or left without a client.
    std::uint64_t frames = 0;
    std::uint64_t complete = 0;
    std::uint64_t timedOut = 0;
    /// Answered, but the client could not draw it.
    std::uint64_t failed = 0;
    /// Given up because no client was left.
    std::uint64_t clientsGone = 0;
    /// Stopped before the pace's limits; a frame given up for that is not counted.
    bool interrupted = false;
    /// Frames that were begun again since a client had reconnected or opened a new view.
    std::uint64_t endedByReconnection = 0;
    std::uint64_t endedByNewView = 0;
    /// The way of the latest ten thousand tokens, if the client stamps what it answers.
    std::deque<Latency> latencies;
};

/// Draws the two figures in a window, frame by frame. Signal thread.
class Engine {
  public:
    /// Called on the engine's thread; may be empty.
    struct Hooks {
        /// Whether a frame under way waits for its answer.
        std::function<void(bool waits)> waiting;
        /// When a frame is over.
        std::function<void(const EngineResult& soFar)> frameOver;
        /// When no answer came in time: why, and the latest flushes that were answered.
        std::function<void(const std::string& cause, const std::deque<Latency>& latest)> timedOut;
    };

    /// REQUIRES: what is given by reference outlives this.
    Engine(kirofigures::Window& window, const DataSet& data, Hooks hooks);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Once.
    EngineResult run(const Pace& pace);

  private:
    /// How often clients have begun anew. Written on the message service's thread.
    struct Beginnings {
        std::atomic<std::uint64_t> reconnections = 0;
        std::atomic<std::uint64_t> newViews = 0;
    };

    /// Returns whether the frame is over; it is not if the window was closed meanwhile.
    bool drawFrame(const Pace& pace);
    /// Whether the frame has to do without a client: none has come in time.
    bool isWithoutClient(const Pace& pace);
    [[nodiscard]] bool isClientThere() const;
    [[nodiscard]] bool hasAnnounced() const;
    void noteTimeout(const std::string& cause);
    void noteLatency();

    kirofigures::Window& fWindow;
    const Hooks fHooks;
    EcgFigure fEcg;
    QuakeFigure fQuakes;
    const std::shared_ptr<Beginnings> fBeginnings = std::make_shared<Beginnings>();
    const std::unique_ptr<kiro::web::Subscriber> fReconnect;
    const kiroutils::EventDispatcher::Listener fNewView;
    /// When the run is to end, whoever is waited for.
    std::optional<std::chrono::time_point<std::chrono::steady_clock, std::chrono::duration<double>>>
        fEnd;
    EngineResult fResult;
};

}  // namespace monitor::engine
