#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "../Program.hpp"
#include "Row.hpp"

namespace {

constexpr const char* kHelp =
    "kiroweb_figures_bench [--quick] [TEXT]\n"
    "Prints what figures cost an engine and a browser. Needs the program chromium.\n"
    "  --quick  one short round: shows that everything works, the figures mean little\n"
    "  TEXT     only the figures whose name contains it\n";

/// Each has a process of its own: no heap, thread or window that another one left.
void measureApart(const bench::Measurement& measurement, bool quick) {
    const auto child = ::fork();
    if (child == 0) {
        try {
            for (const auto& row : measurement.take(quick)) bench::print(row);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", measurement.name.c_str(), error.what());
            std::exit(1);
        }
        std::exit(0);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("\"" + measurement.name + "\" could not be measured");
    }
}

void measure(const bench::Selection& selection) {
    auto all = bench::pictureMeasurements();
    all.push_back(bench::firstPictureMeasurement());
    for (auto& one : bench::viewMeasurements()) all.push_back(std::move(one));
    all.push_back(bench::memoryMeasurement());
    all.push_back(bench::drawMeasurement());
    for (auto& one : bench::recordingMeasurements()) all.push_back(std::move(one));
    bench::printRowHeading();
    for (const auto& one : all) {
        if (selection.has(one.name)) measureApart(one, selection.quick);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run("kiroweb_figures_bench", kHelp, argc, argv, measure);
}
