// What the monitor says of its pages while it runs, with a clock that a test sets, and what it
// keeps.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Console.hpp"
#include "History.hpp"
#include "PageWatch.hpp"
#include "kiroutils/Logger.hpp"

namespace {

using namespace monitor;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

class WatchTest : public testing::Test {
  protected:
    /// A frame waits, this much longer. Answers what was said.
    Lines waitFor(std::chrono::milliseconds time) {
        fWatch.waiting(true);
        fNow += time;
        return look();
    }
    Lines look(bool gone = false) {
        fGone = gone;
        fWatch.look();
        fErrors.look();
        return std::exchange(fSaid, {});
    }

    std::chrono::steady_clock::time_point fNow{1h};
    kirogateway::Statistics fPages;
    bool fGone = false;
    Lines fSaid;
    PageWatch fWatch{{.ask = [this] { return fPages; },
                      .isGone = [this] { return fGone; },
                      .say = [this](std::string line) { fSaid.push_back(std::move(line)); },
                      .repeatLink = [this] { fSaid.push_back("link"); },
                      .now = [this] { return fNow; }},
                     10s};
    ErrorLines fErrors{[this](std::string line) { fSaid.push_back(std::move(line)); },
                       [this] { return fNow; }};
    const Lines kNothing{};
    const Lines kStalled{"client stalled: connected, but without an answer for 3 s"};
};

TEST_F(WatchTest, RepeatsTheLinkAtLongerIntervalsUntilSomebodyComes) {
    EXPECT_EQ(waitFor(9999ms), kNothing);
    EXPECT_EQ(waitFor(1ms), Lines{"link"});
    EXPECT_EQ(waitFor(19999ms), kNothing);
    fPages.views = 1;
    EXPECT_EQ(waitFor(1h), kNothing);
}

TEST_F(WatchTest, TellsAPageThatIsStalledFromOneThatIsGoneOrWasDisconnected) {
    fPages = {.pages = 1, .views = 1, .disconnected = 4};
    EXPECT_EQ(waitFor(2999ms), kNothing);
    fWatch.waiting(false);
    fNow += 1s;
    EXPECT_EQ(waitFor(2999ms), kNothing);
    EXPECT_EQ(waitFor(1ms), kStalled);
    EXPECT_EQ(waitFor(1h), kNothing);
    fWatch.waiting(false);
    EXPECT_EQ(look(), Lines{"client answers again"});
    EXPECT_EQ(waitFor(3s), kStalled);
    fPages = {.views = 1, .disconnected = 5};
    EXPECT_EQ(look(true), Lines{"client stalled for so long that it was disconnected"});
    EXPECT_EQ(look(true), kNothing);
    EXPECT_EQ(look(false), Lines{"client there"});
    EXPECT_EQ(look(true), Lines{"client gone"});
}

TEST_F(WatchTest, ShowsTheFirstScriptErrorsOfASecondAndCountsTheRest) {
    for (int i = 0; i < 8; ++i) fErrors.add("boom");
    EXPECT_EQ(look(), Lines(5, "script error boom"));
    fNow += 999ms;
    EXPECT_EQ(look(), kNothing);
    fNow += 1ms;
    EXPECT_EQ(look(), Lines{"3 more script errors"});
    for (int i = 0; i < 6; ++i) fErrors.add("boom");
    fErrors.end();
    EXPECT_EQ(fSaid.size(), 6U);
    EXPECT_EQ(fSaid.back(), "1 more script errors");
    fErrors.add("a\n\x1b[2J" + std::string(3'000'000, '\n'));
    EXPECT_TRUE(fSaid.back().starts_with(R"(script error a\x0a\x1b[2J)"));
    EXPECT_LT(fSaid.back().size(), 1300U);
}

// A page may report errors of megabytes, as often as it likes.
TEST(History, IsBoundedInAllThatAPageCanFill) {
    History history;
    for (int i = 0; i < 40; ++i) history.add(std::string(3'000'000, 'x'));
    EXPECT_EQ(history.records().front().as_string().size(), History::kMostBytesOfOne + 3);
    std::size_t bytes = 0;
    for (const auto& record : history.records()) bytes += record.as_string().size();
    EXPECT_TRUE(bytes <= History::kMostBytes && bytes > History::kMostBytes / 2) << bytes;
    EXPECT_EQ(history.leftOut(), 40 - history.records().size());
    for (std::size_t i = 0; i < History::kMostRecords; ++i) history.add(std::to_string(i));
    EXPECT_EQ(history.records().size(), History::kMostRecords);
    EXPECT_EQ(history.records().front(), "0");
    // Nor does the host keep them meanwhile.
    for (int i = 0; i < 3; ++i) kiroutils::Logger::instance().log("DrawnowTimeout", "x");
    EXPECT_LE(kiroutils::Logger::instance().history("DrawnowTimeout").size(), 1U);
}

}  // namespace
