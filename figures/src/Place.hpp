#pragma once

#include "kirofigures/Window.hpp"

namespace kirofigures::detail {

/// Which of the process's windows one is, from 1; a number is free again when its window goes.
class Place {
  public:
    Place();
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    /// Those of the window in this place, and of no other.
    [[nodiscard]] Channels channels() const;

  private:
    int fNumber = 1;
};

}  // namespace kirofigures::detail
