#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <vector>

#include "../Program.hpp"
#include "Figures.hpp"

namespace {

constexpr const char* kHelp =
    "kiroweb_gateway_bench [--quick] [TEXT]\n"
    "Prints what the gateway costs beside floors that are measured in the same run. The figures\n"
    "with a page need the program chromium.\n"
    "  --quick  one short round: shows that everything works, the figures mean little\n"
    "  TEXT     only the figures whose name contains it\n";

std::vector<bench::Figure> allFigures(const bench::Effort& effort) {
    auto figures = bench::textFigures(effort);
    figures.push_back(bench::gatewayBlockFigure(effort));
    for (auto& figure : bench::browserFigures(effort)) figures.push_back(figure);
    for (auto& figure : bench::roundTripFigures(effort)) figures.push_back(figure);
    for (auto& figure : bench::floodFigures(effort)) figures.push_back(figure);
    figures.push_back(bench::wildcardFigure(effort));
    for (auto& figure : bench::lostViewFigures()) figures.push_back(figure);
    figures.push_back(bench::idlePageFigure());
    return figures;
}

/// Each figure has a process of its own: no heap, thread or processor that another one left.
void measureApart(const bench::Figure& figure, const bench::Effort& effort) {
    const auto child = ::fork();
    if (child == 0) {
        try {
            bench::measureAndPrint(figure, effort);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", figure.name.c_str(), error.what());
            std::exit(1);
        }
        std::exit(0);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("\"" + figure.name + "\" could not be measured");
    }
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run({"kiroweb_gateway_bench", kHelp, 7, allFigures, measureApart}, argc, argv);
}
