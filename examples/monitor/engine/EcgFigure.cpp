#include "engine/EcgFigure.hpp"

#include <array>
#include <span>
#include <string>

#include "Contract.hpp"
#include "engine/DataSet.hpp"
#include "kirofigures/Window.hpp"

namespace monitor::engine {

using namespace monitor::contract;

EcgFigure::EcgFigure(kirofigures::Window& window, const EcgRecording& recording)
    : fRecording(recording),
      fAxes(window.figure("Electrocardiogram \u2013 one lead, 360 Hz").axes()),
      fLine(fAxes.line()),
      fTime(fAxes.text(0, 0, "")) {
    constexpr double kMillivolts = 4;
    constexpr std::uint64_t kSecondsKept = 60;
    fAxes.x().label("time", "s").follow(kSecondsShown);
    fAxes.y().label("voltage", "mV").limits(-kMillivolts, kMillivolts);
    fLine.set(kirofigures::Regular{0, 1.0 / kSamplesPerSecond}, std::span<const float>());
    fLine.keep(kSecondsKept * kSamplesPerSecond);
    fTime.atFraction(0.98, 0.95).anchor(kirofigures::Anchor::kRight);
}

void EcgFigure::advance() {
    std::array<float, kSamplesPerFrame> samples{};
    for (float& sample : samples) sample = fRecording.at(fEnd++);
    fLine.append(samples);
    fTime.text(std::to_string(fEnd / kSamplesPerSecond) + " s");
}

}  // namespace monitor::engine
