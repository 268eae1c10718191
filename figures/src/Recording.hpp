#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Outlet.hpp"
#include "PageEvents.hpp"
#include "kirofigures/Window.hpp"

namespace kiro {
class ACTRequestor;
}

namespace kiro::web {
class PubSubInterface;
class Subscriber;
}  // namespace kiro::web

namespace kirorecording {
class Recorder;
}

namespace kirofigures::detail {

class Scene;

/// Which attempt at which frame.
struct FrameMark {
    std::uint64_t frame = 0;
    std::uint64_t attempt = 0;
    bool isWhole = false;
};

/// Records what travels to the pages and what comes of it, when it is told to. Engine's thread.
class Recording final : public Tap {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// `title` is for whoever shows the recording.
    Recording(const Channels& channels, std::string title);
    ~Recording() override;

    /// Begins a recording, instead of one that is on; the next frame has to be a whole one. Throws
    /// std::system_error, and then none is on.
    void start(const std::string& path, std::size_t queueSize);
    void stop() noexcept;
    [[nodiscard]] RecordingState state() const;

    [[nodiscard]] bool isOpen() const noexcept override;
    void command(std::string text) override;
    void block(std::string_view bytes) override;

    /// A frame begins.
    void begin(const FrameMark& mark) noexcept;
    /// It has been sent, so that pages lack nothing. Now and then all that they have follows, from
    /// where a reader can begin.
    void sent(const Scene& scene, const Outlet& outlet, Time now) noexcept;
    /// A frame is over. `requestor` has the stamps of its token; null: nobody has.
    void over(const FrameReport& report, const kiro::ACTRequestor* requestor) noexcept;

  private:
    /// What goes wrong in `operation` ends the recording, and nothing else.
    template <typename Operation>
    void attempt(const Operation& operation) noexcept;
    void addFrame(const Scene& scene, const Outlet& outlet, Time now);
    void addToken(const FrameReport& report, const kiro::ACTRequestor* requestor);
    void hear();
    [[nodiscard]] bool isSnapshotDue(Time now) const noexcept;
    void addSnapshot(const Scene& scene, const Outlet& outlet);

    const Channels& fChannels;
    const std::string fTitle;
    /// Shared with what hears the pages, on the message service's thread.
    std::shared_ptr<kirorecording::Recorder> fRecorder;
    /// Of its own: it comes and goes without those who hear the same channels.
    std::shared_ptr<kiro::web::PubSubInterface> fEndpoint;
    std::vector<std::unique_ptr<kiro::web::Subscriber>> fSubscribers;

    FrameMark fMark;
    std::size_t fFrameBytes = 0;
    bool fIsGone = false;  ///< the last page is, and this was said
    // Of the last whole frame or snapshot, from where a reader can begin.
    std::size_t fWholeBytes = 0;
    std::size_t fBytesSince = 0;
    Time fWholeTime;
};

}  // namespace kirofigures::detail
