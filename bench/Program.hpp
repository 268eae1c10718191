#pragma once

#include <functional>
#include <vector>

#include "Figure.hpp"

namespace bench {

/// A program that prints a table of figures. Its arguments are "--quick" and a word, which
/// selects figures by name.
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
