#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "PageEvents.hpp"
#include "Waking.hpp"

namespace kiro::web {
class Subscriber;
}

namespace kirofigures::detail {

/// What pages say, taken down whenever it comes, so that nothing is lost that comes while the
/// engine computes. Made on the signal thread; asked on any.
class Contact {
  public:
    /// More than that wait to be read by nobody; the oldest change of limits goes first.
    static constexpr std::size_t kMostEvents = 1024;

    Contact(const Channels& channels, const Waking& waking);
    ~Contact();
    Contact(const Contact&) = delete;
    Contact& operator=(const Contact&) = delete;

    /// How many views have begun or returned: each of them knows nothing.
    [[nodiscard]] std::uint64_t arrivals() const noexcept;
    /// What pages have said of an attempt at a frame.
    struct Reports {
        std::size_t count = 0;
        /// That of the page that has shown most; nothing if none has said anything.
        std::optional<FrameReport> best;
    };
    [[nodiscard]] Reports reports(std::uint64_t frame, std::uint64_t attempt) const;
    [[nodiscard]] std::size_t numEvents() const;
    /// The oldest one; nothing if there is none.
    [[nodiscard]] std::optional<InputEvent> takeEvent();

  private:
    struct State;
    /// Shared with the callbacks, which run on the message service's thread.
    const std::shared_ptr<State> fState;
    std::vector<std::unique_ptr<kiro::web::Subscriber>> fSubscribers;
};

}  // namespace kirofigures::detail
