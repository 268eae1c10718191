#include "Console.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using namespace monitor;
using namespace std::chrono_literals;

/// The lines of a second, with a clock that a test sets.
struct Errors {
    std::chrono::steady_clock::time_point now{1h};
    std::vector<std::string> said;
    ErrorLines lines{[this](std::string line) { said.push_back(std::move(line)); },
                     [this] { return now; }};
};

TEST(ErrorLines, ShowsTheFirstOnesOfASecondAndCountsTheRest) {
    Errors errors;
    for (int i = 0; i < 8; ++i) errors.lines.add("boom");
    EXPECT_EQ(errors.said, std::vector<std::string>(5, "script error boom"));
    errors.said.clear();
    errors.now += 999ms;
    errors.lines.look();
    EXPECT_TRUE(errors.said.empty());
    errors.now += 1ms;
    errors.lines.look();
    EXPECT_EQ(errors.said, std::vector<std::string>{"3 more script errors"});
    for (int i = 0; i < 6; ++i) errors.lines.add("boom");
    errors.lines.end();
    EXPECT_EQ(errors.said.back(), "1 more script errors");
    EXPECT_EQ(errors.said.size(), 7U);
    errors.lines.add("a\n\x1b[2J" + std::string(3'000'000, '\n'));
    EXPECT_TRUE(errors.said.back().starts_with(R"(script error a\x0a\x1b[2J)"));
    EXPECT_LT(errors.said.back().size(), 1300U);
}

}  // namespace
