#pragma once

#include <chrono>
#include <cmath>  // for programs, which compute what they draw
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "kirofigures/Figure.hpp"
#include "kirofigures/Options.hpp"

namespace kiro::web {
class CommandSenderInterface;
class ConnectionStatus;
class PubSubACTRequestor;
}  // namespace kiro::web

namespace kirogateway {
class Gateway;
struct Statistics;
}  // namespace kirogateway

namespace kirofigures {

namespace detail {
struct Surroundings;
}

/// What has become of a frame.
enum class Outcome {
    kPainted,      ///< it is on the screen
    kHidden,       ///< each page that has it is one that nobody can see
    kPaused,       ///< the page has it, but somebody has stopped the picture
    kLate,         ///< no answer in time; `Drawn::reason` says why
    kNoPage,       ///< nobody looks
    kFailed,       ///< the page could not draw it; `Drawn::reason` says why
    kInterrupted,  ///< the window was closed meanwhile
    kUnderWay,     ///< none is over yet: the first of two frames is under way
};

[[nodiscard]] const char* nameOf(Outcome outcome) noexcept;

struct Drawn {
    Outcome outcome = Outcome::kNoPage;
    /// Which frame that is about: draws are counted from 0.
    std::uint64_t frame = 0;
    std::string reason;

    [[nodiscard]] bool isPainted() const noexcept { return outcome == Outcome::kPainted; }
};

/// How a window's recording stands.
struct RecordingState {
    enum class Phase {
        kOff,  ///< there is none, or it was stopped
        kOn,
        kEnded,  ///< by itself, or something of it could not be written
    };
    Phase phase = Phase::kOff;
    std::string cause;        ///< why it has ended
    std::uint64_t bytes = 0;  ///< of the file
};

/// Names of the channels that a window and its pages use, see docs/figures.md.
struct Channels {
    std::string commands;
    std::string blocks;
    std::string ready;
    std::string newView;
    std::string reconnect;
    std::string events;
    std::string returns[2];
};

/// Figures in a browser. It serves the page, keeps what was drawn so that every page gets it, and
/// brings the figures up to date in frames.
///
/// All operations on one thread, the engine's, which is the host's signal thread. Several windows
/// may be open, each with a page of its own.
class Window {
  public:
    /// Serves the page, prints its link and opens a browser, unless `options` say otherwise.
    /// Throws std::invalid_argument for options that cannot be meant, std::system_error when the
    /// address or a file cannot be had, std::runtime_error when the file for a link cannot be read.
    /// REQUIRES: with `handlesSignals`, no thread that the program has made before takes signals.
    explicit Window(WindowOptions options = {});
    ~Window();
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    /// Makes a further figure.
    Figure& figure(std::string_view title = {});

    /// Brings all pages up to date and waits until this frame is on the screen of one, or over in
    /// another way. The first page that answers ends the wait; while nobody sees that one, the
    /// others are waited for, for a quarter of a second at most. With two frames under way it waits
    /// for the frame before instead, which the result is about. The first one waits for a page;
    /// later ones go on without. Nothing is sent while no page is there: one that comes gets
    /// everything. REQUIRES: not inside a callback. Throws what a callback throws.
    Drawn draw();

    /// Runs callbacks and the host's tasks until something has come from a page, or the window is
    /// closed. A page that comes gets what was drawn.
    /// REQUIRES: not inside a callback. Throws what a callback throws.
    void wait();
    /// As above, until `time` has passed or the window is closed.
    void wait(std::chrono::duration<double> time);

    /// False once the window was closed: by `close`, or by SIGINT or SIGTERM.
    [[nodiscard]] bool isOpen() const noexcept;
    /// Any thread. The figures stay until the window is destroyed.
    void close() noexcept;

    /// The page's address, which lets its holder in; empty when nothing is served, or when no
    /// gateway of a link serves it yet.
    [[nodiscard]] std::string link() const;

    /// Records what travels to the pages and what comes of it into a new file, as docs/recording.md
    /// says. A recording that is on ends first. The next frame shows everything anew. A recording
    /// costs the engine a copy of what it sends and, now and then, of all that pages have; it never
    /// waits for the disk: when too much waits or cannot be written it ends, which the host's log
    /// "recording" says in one line, and the file is good up to there. Frames that nobody looks at
    /// are not in it. Throws std::system_error when the file cannot be made.
    void record(const std::string& path);
    /// Writes what waits and closes the file.
    void stopRecording() noexcept;
    [[nodiscard]] RecordingState recording() const;

    /// The rules for callbacks stand at `Axes::onPick`.
    void onKey(std::function<void(const Key&)> callback);

    // --- What is below --------------------------------------------------------------------------
    [[nodiscard]] const std::shared_ptr<kiro::web::CommandSenderInterface>& sender() const noexcept;
    /// Of the latest frame.
    [[nodiscard]] kiro::web::PubSubACTRequestor& requestor() const noexcept;
    [[nodiscard]] const std::shared_ptr<kiro::web::ConnectionStatus>& status() const noexcept;
    [[nodiscard]] const Channels& channels() const noexcept;
    /// Whether the page is served at all: by the gateway below, or by gateways elsewhere. Any
    /// thread, as the three that follow.
    [[nodiscard]] bool isServed() const noexcept;
    /// Whether pages were there and none is any more.
    [[nodiscard]] bool isClientGone() const noexcept;
    /// What went over the gateway, or, as far as that is known here, over gateways elsewhere.
    /// REQUIRES: the page is served.
    [[nodiscard]] kirogateway::Statistics statistics() const;
    /// A JSON object for a diagnostic bundle. REQUIRES: the page is served.
    [[nodiscard]] std::string diagnostics() const;
    /// Null when nothing is served, or gateways elsewhere serve the page.
    [[nodiscard]] const kirogateway::Gateway* gateway() const noexcept;

  private:
    friend detail::Surroundings;
    struct Impl;
    Window(WindowOptions options, const detail::Surroundings& surroundings);

    std::unique_ptr<Impl> fImpl;
};

}  // namespace kirofigures
