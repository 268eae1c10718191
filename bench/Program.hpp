#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Figure.hpp"

namespace bench {

/// What the arguments of a program ask for: "--quick", and a word that selects figures by name.
struct Selection {
    bool quick = false;
    std::string text;

    [[nodiscard]] bool has(const std::string& name) const {
        return name.find(text) != std::string::npos;
    }
};

/// Calls `measure`, unless the arguments ask for `help` or cannot be understood. Answers the exit
/// status.
int run(const char* name, const char* help, int argc, char** argv,
        const std::function<void(const Selection&)>& measure);

/// A program that prints a table of figures.
struct Program {
    const char* name;
    const char* help;
    int rounds;
    std::function<std::vector<Figure>(const Effort&)> figures;
    /// What is done with each figure that was selected, in order.
    std::function<void(const Figure&, const Effort&)> measure = measureAndPrint;
};

/// Answers the exit status.
int run(const Program& program, int argc, char** argv);

/// From now on this thread, and every thread that it starts, runs on the last processor: a
/// hand-over then always is a context switch, and no figure depends on where the scheduler puts a
/// thread. Answers false if that cannot be had.
bool pinToOneProcessor();

}  // namespace bench
