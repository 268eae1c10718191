#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "../gateway/Browser.hpp"
#include "Processes.hpp"
#include "kirofigures/Window.hpp"

namespace bench {

/// What a frame costs a browser; medians over rounds.
struct Costs {
    double framesPerSecond = 0;
    double mainThread = 0;  ///< milliseconds a frame
    double processor = 0;   ///< milliseconds a frame, of all processes
};

/// Rounds of measuring a browser that counts its frames.
class Rounds {
  public:
    explicit Rounds(bool quick) : fCount(quick ? 1 : 5), fSeconds(quick ? 0.3 : 3.0) {}

    /// `runFor` has the browser paint for so many seconds, and answers how many frames.
    [[nodiscard]] Costs measure(const Browser& browser,
                                const std::function<double(double)>& runFor) const;

  private:
    int fCount;
    double fSeconds;
};

/// A window with two frames under way, and a browser that shows it.
class Show {
  public:
    Show();

    [[nodiscard]] kirofigures::Window& window() noexcept { return fWindow; }
    [[nodiscard]] const Browser& browser() const noexcept { return fBrowser; }

    /// Draws a frame after each `change`, which is told its number. Throws `std::runtime_error`
    /// when one does not get to the screen.
    [[nodiscard]] Costs measure(bool quick, const std::function<void(std::int64_t)>& change);
    /// As above; answers how many frames were painted.
    double drawFor(double seconds, const std::function<void(std::int64_t)>& change);
    void draw(std::int64_t frames, const std::function<void(std::int64_t)>& change);

  private:
    /// Answers how many frames were painted meanwhile.
    int drawOne(const std::function<void(std::int64_t)>& change);

    kirofigures::Window fWindow;
    Browser fBrowser;
    std::int64_t fFrame = 0;
};

/// Options of a window that only shows its figures to whoever has the link.
[[nodiscard]] kirofigures::WindowOptions quietOptions();

}  // namespace bench
