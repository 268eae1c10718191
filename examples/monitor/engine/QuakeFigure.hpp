#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kirofigures {
class Axes;
class Scatter;
class Text;
class Window;
struct Pick;
}  // namespace kirofigures

namespace monitor::engine {

struct DataSet;

/// A week of earthquakes over the coastlines, replayed in 300 frames, again and again. A caption
/// names the latest one, another text the one that was picked.
class QuakeFigure {
  public:
    /// REQUIRES: both outlive this.
    QuakeFigure(kirofigures::Window& window, const DataSet& data);
    QuakeFigure(const QuakeFigure&) = delete;
    QuakeFigure& operator=(const QuakeFigure&) = delete;

    /// Moves on by a frame.
    void advance();

  private:
    void setLooks();
    /// Shows the earthquakes from `first` on up to the last shown, beside what there is.
    void append(std::size_t first);
    /// Which of the shown earthquakes was meant: of several equally near the latest.
    [[nodiscard]] std::size_t picked(const kirofigures::Pick& pick) const;
    /// How the earthquake `index` is named.
    [[nodiscard]] std::string nameOf(std::size_t index) const;

    const DataSet& fData;
    kirofigures::Axes& fAxes;
    kirofigures::Scatter& fQuakes;
    kirofigures::Text& fCaption;
    kirofigures::Text& fPicked;
    std::uint64_t fFrame = 0;
    std::size_t fShown = 0;  ///< earthquakes
};

}  // namespace monitor::engine
