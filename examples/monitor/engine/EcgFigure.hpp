#pragma once

#include <cstdint>

#include "engine/Figure.hpp"
#include "engine/Properties.hpp"

namespace monitor::engine {

struct EcgRecording;

/// The electrocardiogram as a strip chart: the last five seconds, moving on by 12 samples a
/// frame.
class EcgFigure : public Figure {
  public:
    /// REQUIRES: `recording` outlives this.
    explicit EcgFigure(const EcgRecording& recording);

    void sendWhole(Outlet& out) const override;
    void sendNew(Outlet& out) const override;

  private:
    void doAdvance(std::uint64_t frame) override;
    void sendObjects(Outlet& out) const;
    /// The limits and the text, which change with every frame.
    void sendTime(Outlet& out) const;
    /// Sends the samples from `first` to the end of the chart as a block.
    DataRef sendSamples(Outlet& out, std::uint64_t first) const;

    const EcgRecording& fRecording;
    const Cookie fFigure = newHandle();
    const Cookie fAxes = newHandle();
    const Cookie fLine = newHandle();
    const Cookie fTime = newHandle();
    /// Samples up to and with this frame, and before it.
    std::uint64_t fEnd = 0;
    std::uint64_t fEndBefore = 0;
};

}  // namespace monitor::engine
