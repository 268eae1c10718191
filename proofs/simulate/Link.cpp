// Plays the tests' storms between the two ends of a link, from many seeds.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Crash.hpp"
#include "Random.hpp"
#include "Storm.hpp"

namespace {

constexpr const char* kHelp =
    "kiroweb_prove_link SECONDS BASE   schedules from the seeds that BASE stands for\n"
    "kiroweb_prove_link --replay SEED  one schedule, with each message that was published\n";

/// Returns what was not as expected: the first of it, and how much there was; nothing if all was.
std::string play(unsigned long long seed, const link_test::OnMessage& onMessage) {
    simulate::seedNow = seed;
    ::alarm(simulate::kHang);
    std::string failure;
    testing::TestPartResultArray parts;
    try {
        using Reporter = testing::ScopedFakeTestPartResultReporter;
        const Reporter reporter(Reporter::INTERCEPT_ALL_THREADS, &parts);
        link_test::playStorm(seed, onMessage);
    } catch (const std::exception& error) {
        failure = std::string("an exception: ") + error.what();
    }
    ::alarm(0);
    if (failure.empty() && parts.size() > 0) {
        failure = parts.GetTestPartResult(0).message();
        for (auto& c : failure) c = c == '\n' ? ' ' : c;
        failure += " (and " + std::to_string(parts.size() - 1) + " more)";
    }
    if (!failure.empty()) std::printf("failed: seed %llu: %s\n", seed, failure.c_str());
    return failure;
}

int playMany(double seconds, unsigned long long base) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const auto passed = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    unsigned long long schedules = 0;
    unsigned long long messages = 0;
    const auto count = [&messages](const std::string&, const std::string&) { ++messages; };
    simulate::Random seeds(base);
    bool isGood = true;
    for (; simulate::isStopping == 0 && isGood && passed() < seconds; ++schedules) {
        isGood = play(seeds.next() >> 1U, count).empty();
    }
    std::printf("counted: %llu %llu %.3f\n", schedules, messages, passed());
    return isGood ? 0 : 1;
}

int replay(unsigned long long seed) {
    const auto tell = [](const std::string& subject, const std::string& bytes) {
        constexpr std::size_t kType = 3;
        const unsigned type = bytes.size() > kType ? static_cast<unsigned char>(bytes[kType]) : 0;
        std::printf("%s: type %u, %zu bytes\n", subject.c_str(), type, bytes.size());
    };
    if (!play(seed, tell).empty()) return 1;
    return std::printf("seed %llu holds\n", seed), 0;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc != 3) return std::fputs(kHelp, stderr), 2;
    simulate::handleSignals();
    const std::string first = argv[1];
    const auto seed = std::strtoull(argv[2], nullptr, 10);
    return first == "--replay" ? replay(seed) : playMany(std::atof(argv[1]), seed);
}
