#pragma once

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
    /// Where somebody points, in degrees, and at which earthquake if the page knows it.
    struct Pick {
        double longitude = 0;
        double latitude = 0;
        std::optional<std::uint64_t> index{};
    };

    /// REQUIRES: both outlive this.
    QuakeCheck(const ReferenceData& data, Findings& findings);

    /// Forgets the map, but not the pick.
    void clear();
    void coast(const DataUpdate& update);
    void points(const DataUpdate& update);
    void caption(const std::string& text) { fCaption = text; }
    void picked(const std::string& text) { fPicked = text; }
    /// Checks that the map is what `frame` must show.
    void endFrame(std::uint64_t frame) const;

    /// Points at an earthquake shown in `frame`, at every other one by its place alone. From the
    /// next frame on the map must name it, or the one that is nearest to that place.
    Pick pick(std::uint64_t frame);

  private:
    [[nodiscard]] std::size_t shownIn(std::uint64_t frame) const;
    /// What the map must name, of the first `shown` earthquakes.
    [[nodiscard]] const std::string& nearest(const Pick& pick, std::size_t shown) const;

    const ReferenceData& fData;
    Findings& fFindings;
    std::uint64_t fCoastVertices = 0;
    std::uint64_t fShown = 0;
    std::string fCaption;
    std::string fPicked;
    std::string fExpectedPick;
};

}  // namespace monitor::client
