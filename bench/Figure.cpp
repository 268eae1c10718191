#include "Figure.hpp"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace bench {

namespace {

/// Keeps the one sample that a run of one benchmark gives.
class Sample : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        const auto& run = runs.at(0);
        if (run.error_occurred) throw std::runtime_error(run.error_message);
        const auto counter = run.counters.find(kValue);
        value = counter != run.counters.end() ? counter->second.value : run.GetAdjustedRealTime();
    }

    double value = 0.0;
};

std::string registerSide(const Figure& figure, const char* side, const Body& body,
                         const Effort& effort) {
    const auto name = figure.name + "/" + side;
    auto* const registered = benchmark::RegisterBenchmark(name.c_str(), body);
    if (figure.isOneShot) {
        registered->Iterations(1)->UseManualTime();
    } else {
        registered->MinTime(effort.secondsPerSample())->UseRealTime();
    }
    return "^" + name + "/";
}

double takeSample(const std::string& pattern) {
    Sample sample;
    if (benchmark::RunSpecifiedBenchmarks(&sample, pattern) != 1) {
        throw std::logic_error("no single benchmark matches " + pattern);
    }
    return sample.value;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double compare(Comparison comparison, double subject, double floor) {
    if (comparison == Comparison::kDifference) return subject - floor;
    return comparison == Comparison::kRate ? floor / subject : subject / floor;
}

}  // namespace

void printHeading() {
    std::printf("%-20s %-13s %10s %10s %6s  %-9s %s\n", "figure", "unit", "measured", "floor",
                "ratio", "target", "reached");
    std::fflush(stdout);
}

void measureAndPrint(const Figure& figure, const Effort& effort) {
    const auto floorPattern = registerSide(figure, "floor", figure.floor, effort);
    const auto subjectPattern = registerSide(figure, "subject", figure.subject, effort);
    std::vector<double> floors;
    std::vector<double> subjects;
    std::vector<double> ratios;
    for (int round = 0; round < effort.rounds(); ++round) {
        floors.push_back(takeSample(floorPattern));
        subjects.push_back(takeSample(subjectPattern));
        ratios.push_back(compare(figure.comparison, subjects.back(), floors.back()));
    }
    benchmark::ClearRegisteredBenchmarks();
    const double ratio = median(ratios);
    const bool isRate = figure.comparison == Comparison::kRate;
    const bool reached = isRate ? ratio >= figure.target : ratio <= figure.target;
    std::printf("%-20s %-13s %10.1f %10.1f %6.2f  %s %-6.2f %s\n", figure.name.c_str(),
                figure.unit.c_str(), median(subjects), median(floors), ratio,
                isRate ? ">=" : "<=", figure.target, reached ? "yes" : "no");
    std::fflush(stdout);
}

}  // namespace bench
