#pragma once

#include <cstdint>

#include "checked/Require.hpp"

namespace monitor::engine {

class Outlet;

/// One figure that the engine animates.
class Figure {
  public:
    Figure() = default;
    Figure(const Figure&) = delete;
    Figure& operator=(const Figure&) = delete;
    virtual ~Figure() = default;

    /// Moves the figure on to `frame`. REQUIRES: frames come in order, from 0, without a gap.
    void advance(std::uint64_t frame) {
        KIROWEB_REQUIRE(frame == fNextFrame);
        ++fNextFrame;
        doAdvance(frame);
    }
    /// Sends everything that the figure shows now, to a client that may know nothing of it.
    virtual void sendWhole(Outlet& out) const = 0;
    /// Sends what the last `advance` changed, to a client that has all from before.
    virtual void sendNew(Outlet& out) const = 0;

  private:
    virtual void doAdvance(std::uint64_t frame) = 0;

    std::uint64_t fNextFrame = 0;
};

}  // namespace monitor::engine
