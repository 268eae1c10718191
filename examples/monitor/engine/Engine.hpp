#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "engine/ClientWatch.hpp"
#include "engine/Figure.hpp"
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
    std::uint64_t frames = 0;
    std::uint64_t complete = 0;
    std::uint64_t timedOut = 0;
    /// Attempts at a frame that the client's reconnection or new view ended.
    std::uint64_t endedByReconnection = 0;
    std::uint64_t endedByNewView = 0;
    Traffic traffic;
    /// What the sender held back when the first flush began to wait.
    Traffic backlog;
    /// From the sending of the token to the end of the wait, for each complete frame.
    std::vector<std::chrono::microseconds> flushes;
    /// The part of it in which the client had the token, by the client's own stamps.
    std::vector<std::chrono::microseconds> clientTimes;
};

/// Draws the two figures, frame by frame: commands and blocks, then a flush that waits until the
/// client has drawn them. Signal thread.
class Engine {
  public:
    /// Called on the engine's thread; may be empty.
    struct Hooks {
        /// At intervals while a flush waits.
        std::function<void()> waiting;
        /// When a frame is over.
        std::function<void(std::uint64_t frames)> frameOver;
    };

    /// `recorder` may be null. REQUIRES: both outlive this.
    Engine(const DataSet& data, Recorder* recorder, Hooks hooks);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Once.
    EngineResult run(const Pace& pace);

  private:
    enum class FlushEnd { kComplete, kTimedOut, kReconnection, kNewView };

    void drawFrame(std::uint64_t frame);
    void sendFrame(std::uint64_t frame, std::uint64_t attempt);
    FlushEnd flush();
    FlushEnd waitForToken();
    /// Runs while a flush waits.
    void pump() const;
    void noteBacklog();
    /// Waits until `due`; the interpreter's tasks go on meanwhile.
    void waitUntil(std::chrono::steady_clock::time_point due);
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
    PickReceiver fPicks;
    Outlet fOut;
    QuakeFigure* fQuakes = nullptr;  // one of fFigures
    std::vector<std::unique_ptr<Figure>> fFigures;
    bool fClientKnowsFigures = false;
    EngineResult fResult;
};

}  // namespace monitor::engine
