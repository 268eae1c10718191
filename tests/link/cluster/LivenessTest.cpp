#include "Liveness.hpp"

#include <gtest/gtest.h>

namespace kirolink {
namespace {

using namespace std::chrono_literals;

/// What a connection looks like at a time, and whether it is lost by then.
struct Look {
    std::chrono::milliseconds at;
    std::uint64_t arrived;
    std::uint64_t waiting;
    bool isHeard;
    bool isLost;
};

TEST(LivenessTest, tellsANodeThatHangsFromALineThatIsSlow) {
    const std::vector<std::pair<std::string, std::vector<Look>>> cases{
        {"it hangs, and its machine takes what is sent",
         {{900ms, 10, 0, false, false},
          {1000ms, 20, 0, false, false},
          {1900ms, 30, 0, false, false},
          {2000ms, 40, 0, false, true}}},
        {"it hangs, and nothing is taken any more",
         {{1000ms, 10, 500, false, false},
          {1500ms, 30, 900, false, false},
          {2400ms, 30, 900, false, false},
          {2500ms, 30, 900, false, true}}},
        {"the question itself takes seconds to arrive",
         {{1000ms, 10, 500, false, false},
          {1900ms, 100, 500, false, false},
          {2800ms, 200, 500, false, false},
          {3700ms, 509, 100, false, false},
          {4600ms, 510, 200, false, false},
          {5500ms, 600, 200, false, false},
          {5600ms, 610, 200, false, true}}},
        {"it answers late, each time",
         {{1000ms, 10, 0, false, false},
          {1900ms, 10, 0, true, false},
          {2900ms, 10, 0, false, false},
          {3800ms, 10, 0, true, false},
          {4800ms, 10, 0, false, false}}},
    };
    for (const auto& [name, looks] : cases) {
        const Liveness::TimePoint begin{};
        Liveness liveness(2000ms, begin);
        for (const auto& look : looks) {
            if (look.isHeard) liveness.heard(begin + look.at);
            const bool isLost = liveness.isQuiet(begin + look.at) &&
                                liveness.isLost(begin + look.at, look.arrived, look.waiting);
            EXPECT_EQ(isLost, look.isLost) << name << ", " << look.at.count() << " ms";
        }
    }
}

}  // namespace
}  // namespace kirolink
