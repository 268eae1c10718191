#include <sched.h>

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "Figure.hpp"

namespace {

constexpr const char* kHelp =
    "kiroweb_bench [--quick] [TEXT]\n"
    "Prints what the library costs beside floors that are measured in the same run.\n"
    "  --quick  one short round: shows that everything works, the figures mean little\n"
    "  TEXT     only the figures whose name contains it\n";

/// Every thread inherits it: a hand-over then always is a context switch on this processor, and
/// no figure depends on where the scheduler puts a thread.
bool pinToOneProcessor() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return false;
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &allowed)) --last;
    CPU_ZERO(&allowed);
    CPU_SET(last, &allowed);
    return sched_setaffinity(0, sizeof allowed, &allowed) == 0;
}

std::vector<bench::Figure> allFigures(const bench::Effort& effort) {
    auto figures = bench::commandFigures();
    figures.push_back(bench::dispatchFigure());
    figures.push_back(bench::blockFigure());
    figures.push_back(bench::flushFigure());
    for (auto& figure : bench::backlogFigures(effort.backlog())) figures.push_back(figure);
    return figures;
}

}  // namespace

int main(int argc, char** argv) try {
    bench::Effort effort;
    std::string text;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help") return std::fputs(kHelp, stdout) < 0 ? 1 : 0;
        if (argument == "--quick") {
            effort.quick = true;
        } else if (argument.starts_with("-") || !text.empty()) {
            std::fprintf(stderr, "kiroweb_bench: unknown argument \"%s\", see --help\n", argv[i]);
            return 2;
        } else {
            text = argument;
        }
    }
    if (!pinToOneProcessor()) std::fputs("not pinned: the flush says little\n", stderr);
    bench::printHeading();
    for (const auto& figure : allFigures(effort)) {
        if (figure.name.find(text) != std::string::npos) bench::measureAndPrint(figure, effort);
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "kiroweb_bench: %s\n", error.what());
    return 1;
}
