#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Crash.hpp"
#include "World.hpp"

using simulate::Figures;
using simulate::isStopping;
using simulate::kHang;
using simulate::Random;
using simulate::seedNow;
using simulate::World;

namespace {

constexpr const char* kHelp =
    "kiroweb_prove_simulate SECONDS BASE  schedules from the seeds that BASE stands for\n"
    "kiroweb_prove_simulate --replay SEED  one schedule, told step by step\n"
    "kiroweb_prove_simulate --shrink SEED  as few of its steps as still fail, told step by step\n";

std::string run(unsigned long long seed, bool isTold, const std::vector<bool>& keep,
                Figures& figures) {
    seedNow = seed;
    ::alarm(kHang);
    std::string failure;
    try {
        World world(seed, isTold);
        failure = world.run(keep, figures);
        if (!failure.empty()) failure = "step " + std::to_string(world.stepNumber) + ": " + failure;
    } catch (const std::exception& error) {
        failure = std::string("an exception: ") + error.what();
    }
    ::alarm(0);
    return failure;
}

int runMany(double seconds, unsigned long long base) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const auto passed = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    Figures figures;
    Random seeds(base);
    int status = 0;
    while (isStopping == 0 && status == 0 && passed() < seconds) {
        const auto seed = seeds.next() >> 1U;
        const auto failure = run(seed, false, {}, figures);
        if (failure.empty()) continue;
        std::printf("failed: seed %llu: %s\n", static_cast<unsigned long long>(seed),
                    failure.c_str());
        status = 1;
    }
    std::printf("counted: %llu %llu %.3f %llu %llu %llu %.3f\n",
                static_cast<unsigned long long>(figures.schedules),
                static_cast<unsigned long long>(figures.steps), figures.time.count() / 3600,
                static_cast<unsigned long long>(figures.failures),
                static_cast<unsigned long long>(figures.messages),
                static_cast<unsigned long long>(figures.returns), passed());
    return status;
}

/// Whether the schedule fails with these steps, found in a process of its own, since it may crash.
bool fails(unsigned long long seed, const std::vector<bool>& keep) {
    std::fflush(stdout);
    const auto child = ::fork();
    if (child == 0) {
        static_cast<void>(std::freopen("/dev/null", "w", stdout));
        static_cast<void>(std::freopen("/dev/null", "w", stderr));
        Figures figures;
        ::_exit(run(seed, false, keep, figures).empty() ? 0 : 1);
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status != 0;
}

int shrink(unsigned long long seed) {
    std::vector<bool> keep(World(seed, false).numSteps(), true);
    if (!fails(seed, keep)) return std::printf("seed %llu does not fail\n", seed), 0;
    for (std::size_t size = keep.size() / 2; size > 0; size = size == 1 ? 0 : (size + 1) / 2) {
        for (std::size_t at = 0; at < keep.size(); at += size) {
            auto fewer = keep;
            for (std::size_t i = at; i < std::min(at + size, keep.size()); ++i) fewer[i] = false;
            if (fewer != keep && fails(seed, fewer)) keep = fewer;
        }
    }
    Figures figures;
    const auto failure = run(seed, true, keep, figures);
    std::printf("failed: seed %llu: %s\n", seed, failure.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string first = argc == 3 ? argv[1] : "";
    if (first.empty()) return std::fputs(kHelp, stderr), 2;
    simulate::handleSignals();
    const auto seed = std::strtoull(argv[2], nullptr, 10);
    if (first == "--shrink") return shrink(seed);
    if (first != "--replay") return runMany(std::atof(argv[1]), seed);
    Figures figures;
    const auto failure = run(seed, true, {}, figures);
    if (failure.empty()) return std::printf("seed %llu holds\n", seed), 0;
    return std::printf("failed: seed %llu: %s\n", seed, failure.c_str()), 1;
}
