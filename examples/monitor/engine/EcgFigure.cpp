#include "engine/EcgFigure.hpp"

#include <string>
#include <vector>

#include "Contract.hpp"
#include "engine/DataSet.hpp"
#include "ui_objects/UTF16String.hpp"

namespace monitor::engine {

using namespace monitor::contract;

namespace {

constexpr Range kMillivolts{-4, 4};

double secondsOf(std::uint64_t samples) {
    return static_cast<double>(samples) / static_cast<double>(kSamplesPerSecond);
}

}  // namespace

EcgFigure::EcgFigure(const EcgRecording& recording) : fRecording(recording) {}

void EcgFigure::doAdvance(std::uint64_t frame) {
    fEndBefore = frame * kSamplesPerFrame;
    fEnd = fEndBefore + kSamplesPerFrame;
}

void EcgFigure::sendWhole(Outlet& out) const {
    sendObjects(out);
    setData(out, fLine, sendSamples(out, fEnd < kWindowSamples ? 0 : fEnd - kWindowSamples));
    sendTime(out);
}

void EcgFigure::sendNew(Outlet& out) const {
    appendData(out, fLine, sendSamples(out, fEndBefore));
    sendTime(out);
}

void EcgFigure::sendObjects(Outlet& out) const {
    createFigure(out, fFigure, "ecg.figure");
    setTitle(out, fFigure, ui_objects::UTF16String(u"Electrocardiogram \u2013 one lead, 360 Hz"));
    createObject(out, fAxes, "axes", "ecg.axes", fFigure);
    setLabels(out, fAxes, "time in s", "mV");
    createObject(out, fLine, "line", "ecg.line", fAxes);
    setStyle(out, fLine, {0.1F, 0.6F, 0.2F}, 1.5);
    createObject(out, fTime, "text", "ecg.time", fAxes);
    setFont(out, fTime, {.family = "monospace", .points = 12});
    setPosition(out, fTime, {0.98, 0.95});
    setChildren(out, fAxes, {fLine, fTime});
}

void EcgFigure::sendTime(Outlet& out) const {
    const double end = secondsOf(fEnd);
    setLimits(out, fAxes, {end - secondsOf(kWindowSamples), end}, kMillivolts);
    setText(out, fTime, std::to_string(fEnd / kSamplesPerSecond) + " s");
}

DataRef EcgFigure::sendSamples(Outlet& out, std::uint64_t first) const {
    std::vector<float> samples;
    samples.reserve(fEnd - first);
    for (std::uint64_t i = first; i < fEnd; ++i) samples.push_back(fRecording.at(i));
    return {.id = out.block(samples), .first = first, .count = samples.size()};
}

}  // namespace monitor::engine
