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
    fRegular.clear();
    fFollow = 0;
    fTime.clear();
}

void EcgCheck::samples(const DataUpdate& update) {
    constexpr double kStep = 1.0 / kSamplesPerSecond;
    if (update.first == 0) {
        if (fRegular.size() != 2 || fRegular[1] != kStep) {
            throw FieldError("the samples do not lie where they were taken");
        }
        fBegin = static_cast<std::uint64_t>(std::llround(fRegular[0] * kSamplesPerSecond));
    } else if (fBegin + update.first != fEnd) {
        fFindings.outOfOrder("samples from " + std::to_string(fBegin + update.first) +
                             " behind sample " + std::to_string(fEnd));
    }
    const std::uint64_t first = fBegin + update.first;
    fEnd = first + update.count;
    const auto& y = update.column("y");
    for (std::uint64_t i = 0; i < update.count; ++i) {
        if (y[i] == double{fData.millivolts[(first + i) % fData.millivolts.size()]}) continue;
        fFindings.wrong("sample " + std::to_string(first + i));
        return;
    }
}

void EcgCheck::endFrame(std::uint64_t frame) const {
    const std::string inFrame = " in frame " + std::to_string(frame);
    const std::uint64_t end = (frame + 1) * kSamplesPerFrame;
    if (fEnd < end) fFindings.missing("samples up to " + std::to_string(end) + inFrame);
    if (fEnd > end) fFindings.wrong("samples that come later" + inFrame);
    if (fBegin > end - std::min(end, kSecondsShown * kSamplesPerSecond)) {
        fFindings.missing("the oldest samples of the strip chart" + inFrame);
    }
    if (fFollow != double{kSecondsShown}) {
        fFindings.wrong("the time limits of the strip chart" + inFrame);
    }
    if (fTime != std::to_string(end / kSamplesPerSecond) + " s") {
        fFindings.wrong("the time text \"" + fTime + '"' + inFrame);
    }
}

}  // namespace monitor::client
