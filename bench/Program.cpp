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

int run(const Program& program, int argc, char** argv) try {
    Effort effort{program.rounds};
    std::string text;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help") return std::fputs(program.help, stdout) < 0 ? 1 : 0;
        if (argument == "--quick") {
            effort.quick = true;
        } else if (argument.starts_with("-") || !text.empty()) {
            std::fprintf(stderr, "%s: unknown argument \"%s\", see --help\n", program.name,
                         argv[i]);
            return 2;
        } else {
            text = argument;
        }
    }
    printHeading();
    for (const auto& figure : program.figures(effort)) {
        if (figure.name.find(text) != std::string::npos) program.measure(figure, effort);
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program.name, error.what());
    return 1;
}

}  // namespace bench
