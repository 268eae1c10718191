#pragma once

#include "../ValveService.hpp"
#include "kirofigures/Window.hpp"

namespace bench {

/// A window without a page: the token of each frame is back before the wait for it begins. One at a
/// time.
class Answered {
  public:
    Answered();
    ~Answered();
    Answered(const Answered&) = delete;
    Answered& operator=(const Answered&) = delete;

    [[nodiscard]] kirofigures::Window& window() noexcept { return fWindow; }

  private:
    kirofigures::Window fWindow;
    ValveService::Drain fAnswer;
};

}  // namespace bench
