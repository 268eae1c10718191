#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace monitor::client {

struct DataUpdate;
struct ReferenceData;
class Findings;

/// Follows the strip chart and compares it with the recording.
class EcgCheck {
  public:
    /// REQUIRES: both outlive this.
    EcgCheck(const ReferenceData& data, Findings& findings);

    /// Forgets the chart.
    void clear();
    void samples(const DataUpdate& update);
    /// Where the samples lie that come next: start and step.
    void regular(const std::vector<double>& x) { fRegular = x; }
    void follow(double width) { fFollow = width; }
    void time(const std::string& text) { fTime = text; }
    /// Checks that the chart is what `frame` must show.
    void endFrame(std::uint64_t frame) const;

  private:
    const ReferenceData& fData;
    Findings& fFindings;
    /// The samples that the chart holds, of which it shows the last.
    std::uint64_t fBegin = 0;
    std::uint64_t fEnd = 0;
    std::vector<double> fRegular;
    double fFollow = 0;
    std::string fTime;
};

}  // namespace monitor::client
