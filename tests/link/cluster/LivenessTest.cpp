#include "Liveness.hpp"

#include <gtest/gtest.h>

namespace kirolink {
namespace {

using namespace std::chrono_literals;

/// What a connection looks like at a time, what is done then, and whether it is lost by then.
struct Look {
    enum Deed { kNone, kHear, kAsk };
    std::chrono::milliseconds at;
    Deed deed;
    std::uint64_t arrived;
    std::uint64_t waiting;
    bool isLost;
};

TEST(LivenessTest, tellsANodeThatHangsFromALineThatIsSlow) {
    const std::vector<std::pair<std::string, std::vector<Look>>> cases{
        {"it hangs, and its machine takes what is sent",
         {{500ms, Look::kAsk, 20, 0, false},
          {1000ms, Look::kNone, 5000, 0, false},
          {1400ms, Look::kNone, 9000, 0, false},
          {1500ms, Look::kNone, 9900, 0, true}}},
        {"it hangs, and nothing is taken any more",
         {{500ms, Look::kAsk, 10, 500, false},
          {1000ms, Look::kNone, 30, 900, false},
          {2400ms, Look::kNone, 30, 900, false},
          {2500ms, Look::kNone, 30, 900, true}}},
        {"the question itself takes seconds to arrive",
         {{500ms, Look::kAsk, 10, 500, false},
          {1900ms, Look::kNone, 200, 310, false},
          {3300ms, Look::kNone, 300, 210, false},
          {4300ms, Look::kNone, 510, 90, false},
          {5200ms, Look::kNone, 590, 90, false},
          {5300ms, Look::kNone, 600, 90, true}}},
        {"it answers late, each time",
         {{500ms, Look::kAsk, 10, 0, false},
          {1400ms, Look::kHear, 10, 0, false},
          {1900ms, Look::kAsk, 10, 0, false},
          {2800ms, Look::kHear, 10, 0, false},
          {5000ms, Look::kNone, 10, 0, false}}},
    };
    for (const auto& [name, looks] : cases) {
        const Liveness::TimePoint begin{};
        Liveness liveness(2000ms, begin);
        for (const auto& look : looks) {
            const auto now = begin + look.at;
            if (look.deed == Look::kHear) liveness.heard(now);
            EXPECT_EQ(liveness.mustAsk(now), look.deed == Look::kAsk || look.at == 5000ms) << name;
            if (look.deed == Look::kAsk) liveness.asked(look.arrived + look.waiting);
            EXPECT_EQ(liveness.isLost(now, look.arrived, look.waiting), look.isLost)
                << name << ", " << look.at.count() << " ms";
        }
    }
}

}  // namespace
}  // namespace kirolink
