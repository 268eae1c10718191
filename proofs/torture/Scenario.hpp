#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Heap.hpp"

namespace torture {

/// What may come of an operation that gets no memory.
enum Promise : unsigned {
    kNothing = 0,      ///< it allocates nothing, or does without
    kBadAlloc = 1,     ///< std::bad_alloc
    kOutOfMemory = 2,  ///< std::runtime_error, "Out of memory!"
    kSystem = 4,       ///< std::system_error
    kSilent = 8,       ///< it ends, and has not done everything
    kUnchanged = 16,   ///< what throws has changed nothing
};

/// One use of something from its making to its end.
struct Round {
    /// The operations, one after the other. The one that throws can be called again.
    std::vector<std::function<void()>> steps;
    /// What they have made of it, for comparing. Called once, or with `kUnchanged` again and again.
    std::function<std::string()> state;
};

struct Scenario {
    std::string name;
    /// Runs it once and says what is wrong with what comes of it. Answers whether an allocation
    /// failed.
    std::function<bool(Failure)> attempt;
};

using Scenarios = std::vector<Scenario>;

/// Says what is wrong, in one line; the number of these is the program's outcome.
void finding(const std::string& text);

/// Of operations on the calling thread.
Scenario scenario(std::string name, unsigned promises, std::function<Round()> make);

/// As above, of steps on a `Fixture`, which says what they have made of it.
template <typename Fixture>
Scenario scenario(std::string name, unsigned promises, std::vector<void (*)(Fixture&)> steps) {
    return scenario(std::move(name), promises, [steps = std::move(steps)] {
        const auto fixture = std::make_shared<Fixture>();
        Round round;
        for (const auto step : steps) {
            round.steps.emplace_back([fixture, step] { step(*fixture); });
        }
        round.state = [fixture] { return fixture->state(); };
        return round;
    });
}

/// Whether, before long, no more blocks are there than `before`.
bool isGivenBack(long before);
/// Runs `attempt` again while it loses blocks, three times at most: what is kept for good once is
/// no leak. Returns what it answered.
bool expectNoLeak(const std::function<bool()>& attempt);

void addLibrary(Scenarios& all);
void addFigures(Scenarios& all);
void addLink(Scenarios& all);
void addRecordings(Scenarios& all);
void addGateway(Scenarios& all);

}  // namespace torture
