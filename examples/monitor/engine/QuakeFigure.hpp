#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "engine/Figure.hpp"
#include "engine/Properties.hpp"

namespace monitor::engine {

struct DataSet;

/// A place on the map that somebody points at, in degrees.
struct Pick {
    float longitude = 0;
    float latitude = 0;
};

/// A week of earthquakes over the coastlines, replayed in 300 frames, again and again. A caption
/// names the latest one, another text the one that was picked.
class QuakeFigure : public Figure {
  public:
    /// REQUIRES: `data` outlives this.
    explicit QuakeFigure(const DataSet& data);

    /// From the next `advance` on the shown earthquake nearest to `pick` is named; of several
    /// equally near the latest.
    void pick(Pick pick);

    void sendWhole(Outlet& out) const override;
    void sendNew(Outlet& out) const override;

  private:
    void doAdvance(std::uint64_t frame) override;
    void sendObjects(Outlet& out) const;
    void sendCoast(Outlet& out) const;
    void sendTexts(Outlet& out) const;
    /// Sends the earthquakes from `first` to the last shown as a block.
    DataRef sendQuakes(Outlet& out, std::size_t first) const;
    /// How the earthquake `index` is named.
    [[nodiscard]] std::string nameOf(std::size_t index) const;
    [[nodiscard]] std::string nameOfPicked() const;

    const DataSet& fData;
    const Cookie fFigure = newHandle();
    const Cookie fAxes = newHandle();
    const Cookie fCoast = newHandle();
    const Cookie fPoints = newHandle();
    const Cookie fCaption = newHandle();
    const Cookie fPicked = newHandle();
    std::optional<Pick> fPick;
    /// Earthquakes shown in this frame, and in the one before.
    std::size_t fShown = 0;
    std::size_t fShownBefore = 0;
    bool fWeekBegins = false;
};

}  // namespace monitor::engine
