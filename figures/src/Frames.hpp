#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "Contact.hpp"
#include "Recording.hpp"
#include "Scene.hpp"
#include "Surroundings.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kirofigures/Window.hpp"

namespace kirofigures::detail {

/// Sends frames, waits for their tokens, and says what became of them. Engine's thread.
class Frames {
  public:
    using Clock = std::chrono::steady_clock;
    using Requestors = std::vector<std::unique_ptr<kiro::web::PubSubACTRequestor>>;

    struct Means {
        Scene& scene;
        Outlet& outlet;
        Contact& contact;
        Recording& recording;
        /// One for each frame that may be under way.
        Requestors requestors;
        Surroundings surroundings;
        std::function<bool()> isOpen;
        Clock::duration timeout;
        bool waitsForPage;
    };

    /// REQUIRES: what is given by reference outlives this.
    explicit Frames(Means means);

    /// See `Window::draw`.
    Drawn draw();
    /// Whether a page has come that has not been sent what was drawn.
    [[nodiscard]] bool isRepeatDue() const;
    /// Sends everything that was drawn, and waits for nothing.
    void repeat();
    /// The next one has everything, whatever pages have.
    void beginAnew() noexcept { fArePagesCurrent = false; }

    [[nodiscard]] kiro::web::PubSubACTRequestor& requestor() const noexcept { return *fLatest; }

    /// Runs the host's tasks until `condition` holds, for which it is asked at least every 10 ms.
    static void waitUntil(const std::function<bool()>& condition);

  private:
    /// A frame that has been sent and is not over.
    struct Flight {
        std::uint64_t frame = 0;
        kiro::web::PubSubACTRequestor* requestor = nullptr;
        std::uint64_t attempt = 0;
        Clock::time_point deadline{};
        bool isSent = false;
    };

    [[nodiscard]] bool hasPage() const;
    [[nodiscard]] bool isNewToPage() const;
    [[nodiscard]] kiro::web::PubSubACTRequestor& nextRequestor();
    /// Sends the newest flight; all of them when a page has come that knows none.
    void send();
    void send(Flight& flight);
    void sendCommands(Flight& flight);
    /// Waits until the oldest flight is over.
    Drawn awaitOldest();
    /// The oldest flight is. Its frame and attempt need not be said.
    [[nodiscard]] Drawn over(FrameReport report);
    [[nodiscard]] Drawn answered(const Flight& flight);
    /// What pages have said of a frame whose token is back. The first page's word is the last one's
    /// unless nobody sees that page: then the others are waited for, for a moment.
    [[nodiscard]] Contact::Reports reportsOf(const Flight& flight);
    /// Gives all flights up, for no page is there or the window is closed.
    Drawn nobodySees(std::uint64_t frame);
    /// Gives all flights up. What they have sent is on its way all the same.
    void abandon() noexcept;

    const Means fMeans;
    std::deque<Flight> fFlights;
    kiro::web::PubSubACTRequestor* fLatest;
    std::size_t fTurn = 0;
    std::uint64_t fNext = 0;
    /// The arrivals of which the latest frame knew.
    std::uint64_t fArrivals = 0;
    /// Whether the pages that are there have all that was sent.
    bool fArePagesCurrent = false;
    /// The attempts at the latest frame that was sent.
    std::uint64_t fAttempts = 0;
    /// Whether what is under way is a repetition, of which nobody is told.
    bool fIsRepeating = false;
};

}  // namespace kirofigures::detail
