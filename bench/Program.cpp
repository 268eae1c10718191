#include "Program.hpp"

#include <sched.h>

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

namespace bench {

bool pinToOneProcessor() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return false;
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &allowed)) --last;
    CPU_ZERO(&allowed);
    CPU_SET(last, &allowed);
    return sched_setaffinity(0, sizeof allowed, &allowed) == 0;
}

int run(const char* name, const char* help, int argc, char** argv,
        const std::function<void(const Selection&)>& measure) try {
    Selection selection;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help") return std::fputs(help, stdout) < 0 ? 1 : 0;
        if (argument == "--quick") {
            selection.quick = true;
        } else if (argument.starts_with("-") || !selection.text.empty()) {
            std::fprintf(stderr, "%s: unknown argument \"%s\", see --help\n", name, argv[i]);
            return 2;
        } else {
            selection.text = argument;
        }
    }
    measure(selection);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
}

int run(const Program& program, int argc, char** argv) {
    return run(program.name, program.help, argc, argv, [&program](const Selection& selection) {
        const Effort effort{program.rounds, selection.quick};
        printHeading();
        for (const auto& figure : program.figures(effort)) {
            if (selection.has(figure.name)) program.measure(figure, effort);
        }
    });
}

}  // namespace bench
