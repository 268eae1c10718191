#include <cstdio>
#include <vector>

#include "Program.hpp"

namespace {

constexpr const char* kHelp =
    "kiroweb_bench [--quick] [TEXT]\n"
    "Prints what the library costs beside floors that are measured in the same run.\n"
    "  --quick  one short round: shows that everything works, the figures mean little\n"
    "  TEXT     only the figures whose name contains it\n";

std::vector<bench::Figure> allFigures(const bench::Effort& effort) {
    auto figures = bench::commandFigures();
    figures.push_back(bench::dispatchFigure());
    for (auto& figure : bench::blockFigures()) figures.push_back(figure);
    figures.push_back(bench::flushFigure());
    for (auto& figure : bench::backlogFigures(effort.backlog())) figures.push_back(figure);
    return figures;
}

}  // namespace

int main(int argc, char** argv) {
    if (!bench::pinToOneProcessor()) std::fputs("not pinned: the flush says little\n", stderr);
    return bench::run({"kiroweb_bench", kHelp, 15, allFigures}, argc, argv);
}
