#pragma once

#include <cstdint>

namespace kirofigures {
class Axes;
class Line;
class Text;
class Window;
}  // namespace kirofigures

namespace monitor::engine {

struct EcgRecording;

/// The electrocardiogram as a strip chart: the last five seconds, moving on by 12 samples a
/// frame.
class EcgFigure {
  public:
    /// REQUIRES: both outlive this.
    EcgFigure(kirofigures::Window& window, const EcgRecording& recording);

    /// Moves on by a frame.
    void advance();

  private:
    const EcgRecording& fRecording;
    kirofigures::Axes& fAxes;
    kirofigures::Line& fLine;
    kirofigures::Text& fTime;
    std::uint64_t fEnd = 0;  ///< samples so far
};

}  // namespace monitor::engine
