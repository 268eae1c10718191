#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace monitor::client {

struct DataUpdate;
struct ReferenceData;
class Findings;

/// Follows the map and compares it with the week's earthquakes and the coastlines.
class QuakeCheck {
  public:
    /// Longitude and latitude in degrees.
    using Place = std::array<float, 2>;

    /// REQUIRES: both outlive this.
    QuakeCheck(const ReferenceData& data, Findings& findings);

    /// Forgets the map, but not the pick.
    void clear();
    void coast(const DataUpdate& update);
    void points(const DataUpdate& update);
    void caption(const std::string& text) { fCaption = text; }
    void picked(const std::string& text) { fPicked = text; }
    void pickedVisible(bool visible) { fPickedVisible = visible; }
    /// Checks that the map is what `frame` must show.
    void endFrame(std::uint64_t frame) const;

    /// A place to point at: that of an earthquake shown in `frame`. From the next frame on the
    /// map must name the one nearest to it.
    Place pick(std::uint64_t frame);

  private:
    [[nodiscard]] std::size_t shownIn(std::uint64_t frame) const;
    /// What the map must name, of the first `shown` earthquakes.
    [[nodiscard]] std::string expectedPick(std::size_t shown) const;

    const ReferenceData& fData;
    Findings& fFindings;
    std::uint64_t fCoastVertices = 0;
    std::uint64_t fShown = 0;
    std::string fCaption;
    std::string fPicked;
    bool fPickedVisible = false;
    std::optional<Place> fPick;
};

}  // namespace monitor::client
