// kiroweb_prove_torture --list: the names of the scenarios.
// kiroweb_prove_torture NAME once|on FROM STEP MOST: runs one of them with the allocation FROM,
// then FROM + STEP, ... failing, once or from then on, MOST times or until all have failed.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "Scenario.hpp"
#include "kirohost/Controls.hpp"
#include "relay/Relay.hpp"

namespace torture {
namespace {

using std::chrono::steady_clock;

/// How long one run may take, on a machine that others use as well.
constexpr std::chrono::seconds kMost(30);

std::atomic<steady_clock::rep> begin{0};
int findings = 0;

void say(const std::string& line) {
    const auto whole = line + "\n";
    // Unbuffered: what follows may end the process.
    static_cast<void>(!::write(STDOUT_FILENO, whole.data(), whole.size()));
}

void watch() {
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
        const steady_clock::duration since(steady_clock::now().time_since_epoch().count() - begin);
        if (since < kMost) continue;
        say("hang");
        ::_exit(4);
    }
}

/// Runs `step` exposed. Returns what kind of exception left it, and its text.
std::pair<unsigned, std::string> outcomeOf(const std::function<void()>& step) {
    struct Exposed {
        Exposed() noexcept { exposeThread(true); }
        ~Exposed() { exposeThread(false); }
    };
    try {
        const Exposed exposed;
        step();
        return {};
    } catch (const std::bad_alloc& error) {
        return {kBadAlloc, error.what()};
    } catch (const std::system_error& error) {
        return {kSystem, error.what()};
    } catch (const std::exception& error) {
        const std::string text = error.what();
        return {text == "Out of memory!" ? kOutOfMemory : kNothing, text};
    } catch (...) {
        return {kNothing, "what is no exception"};
    }
}

/// Of operations on the main thread.
class Operations {
  public:
    Operations(unsigned promises, std::function<Round()> make)
        : fPromises(promises), fMake(std::move(make)) {}

    bool attempt(Failure failure) {
        // What is made on first use, and kept, is made before.
        for (int i = 0; i < 2 && !fIsWarm; ++i) run({});
        fIsWarm = true;
        return expectNoLeak([&] { return run(failure); });
    }

  private:
    /// Returns whether an allocation failed.
    bool run(Failure failure) {
        const auto round = fMake();
        arm(failure, false);
        for (const auto& step : round.steps) {
            const auto before = has(kUnchanged) ? round.state() : std::string();
            const auto [kind, text] = outcomeOf(step);
            if (text.empty()) continue;
            if (!disarm()) finding("throws though nothing failed: " + text);
            if (!has(kind)) finding("throws what it must not: " + text);
            if (has(kUnchanged)) expectEqual("what throws leaves", round.state(), before);
            const auto again = outcomeOf(step).second;
            if (!again.empty()) return finding("cannot be done afterwards: " + again), true;
        }
        const bool hasFailed = disarm();
        const auto end = round.state();
        if (!fIsWarm) fQuiet = end;
        if (!hasFailed || !has(kSilent)) expectEqual("it ends with", end, fQuiet);
        return hasFailed;
    }
    [[nodiscard]] bool has(unsigned promise) const { return (fPromises & promise) != 0; }
    static void expectEqual(const std::string& what, const std::string& is,
                            const std::string& was) {
        if (is != was) finding(what + " \"" + is + "\" in place of \"" + was + '"');
    }

    const unsigned fPromises;
    const std::function<Round()> fMake;
    bool fIsWarm = false;
    std::string fQuiet;  ///< the state when nothing fails
};

int run(const Scenario& scenario, Failure failure, std::size_t step, std::size_t most) {
    // How many there are differs a little with what a thread has done before.
    for (int calm = 0; calm < 3 && most > 0; failure.number += step, --most) {
        begin = steady_clock::now().time_since_epoch().count();
        say("at " + std::to_string(failure.number));
        calm = scenario.attempt(failure) ? 0 : calm + 1;
        if (calm == 0) say("failed");
    }
    return findings == 0 ? 0 : 1;
}

Scenarios scenarios() {
    Scenarios all;
    for (const auto add : {&addLibrary, &addFigures, &addRecordings, &addLink, &addGateway})
        add(all);
    return all;
}

}  // namespace

void finding(const std::string& text) {
    auto line = "finding: " + text.substr(0, 1000);
    for (auto& c : line) c = c == '\n' ? ' ' : c;
    say(line);
    ++findings;
}

Scenario scenario(std::string name, unsigned promises, std::function<Round()> make) {
    const auto operations = std::make_shared<Operations>(promises, std::move(make));
    return {std::move(name),
            [operations](Failure failure) { return operations->attempt(failure); }};
}

bool isGivenBack(long before) {
    const auto end = steady_clock::now() + std::chrono::milliseconds(500);
    while (liveBlocks() > before) {
        if (steady_clock::now() >= end) return false;
        std::this_thread::yield();
    }
    return true;
}

bool expectNoLeak(const std::function<bool()>& attempt) {
    long lost = 0;
    bool hasFailed = false;
    for (int i = 0; i < 3; ++i) {
        const auto before = liveBlocks();
        hasFailed = attempt();
        kirohost::waitForDelivery();
        kirohost::runPendingTasks();
        if (isGivenBack(before)) return hasFailed;
        lost = liveBlocks() - before;
    }
    finding("leak: " + std::to_string(lost) + " blocks each time");
    return hasFailed;
}

}  // namespace torture

int main(int argc, char** argv) {
    using namespace torture;
    relay::getRelay();
    const auto all = scenarios();
    if (argc < 6) {
        for (const auto& one : all) say(one.name);
        return 0;
    }
    begin = steady_clock::now().time_since_epoch().count();
    std::thread(&watch).detach();
    for (const auto& one : all) {
        if (one.name != argv[1]) continue;
        return run(one, {std::stoul(argv[3]), std::string(argv[2]) == "on"}, std::stoul(argv[4]),
                   std::stoul(argv[5]));
    }
    return 2;
}
