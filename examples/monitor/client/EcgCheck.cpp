#include "client/EcgCheck.hpp"

#include <algorithm>
#include <cmath>

#include "Contract.hpp"
#include "client/DataUpdate.hpp"
#include "client/Findings.hpp"
#include "client/ReferenceData.hpp"

namespace monitor::client {

using namespace monitor::contract;

EcgCheck::EcgCheck(const ReferenceData& data, Findings& findings)
    : fData(data), fFindings(findings) {}

void EcgCheck::clear() {
    fBegin = 0;
    fEnd = 0;
    fLimits.clear();
    fTime.clear();
}

void EcgCheck::samples(const DataUpdate& update) {
    if (!update.append) {
        fBegin = update.first;
    } else if (update.first != fEnd) {
        fFindings.outOfOrder("samples from " + std::to_string(update.first) + " behind sample " +
                             std::to_string(fEnd));
    }
    fEnd = update.first + update.count;
    for (std::uint64_t i = 0; i < update.count; ++i) {
        const float expected = fData.millivolts[(update.first + i) % fData.millivolts.size()];
        if (update.columns != 1 || update.numbers[i] != expected) {
            fFindings.wrong("sample " + std::to_string(update.first + i));
            return;
        }
    }
}

void EcgCheck::endFrame(std::uint64_t frame) const {
    const std::string inFrame = " in frame " + std::to_string(frame);
    const std::uint64_t end = (frame + 1) * kSamplesPerFrame;
    if (fEnd < end) fFindings.missing("samples up to " + std::to_string(end) + inFrame);
    if (fEnd > end) fFindings.wrong("samples that come later" + inFrame);
    if (fBegin > end - std::min(end, kWindowSamples)) {
        fFindings.missing("the oldest samples of the strip chart" + inFrame);
    }
    constexpr double kRate{kSamplesPerSecond};
    constexpr double kTolerance = 1e-9;
    const double high = static_cast<double>(end) / kRate;
    if (fLimits.size() != 2 || std::abs(fLimits[1] - high) > kTolerance ||
        std::abs(fLimits[0] - (high - 5)) > kTolerance) {
        fFindings.wrong("the time limits of the strip chart" + inFrame);
    }
    if (fTime != std::to_string(end / kSamplesPerSecond) + " s") {
        fFindings.wrong("the time text \"" + fTime + '"' + inFrame);
    }
}

}  // namespace monitor::client
