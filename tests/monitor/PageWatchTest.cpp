#include "PageWatch.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using namespace monitor;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

/// A watch whose clock and pages a test sets.
class PageWatchTest : public testing::Test {
  protected:
    /// A frame waits, this much longer.
    void waitFor(std::chrono::milliseconds time) {
        fWatch.waiting(true);
        fNow += time;
        fWatch.look();
    }
    void note(bool gone) {
        fGone = gone;
        fWatch.look();
    }
    Lines said() { return std::exchange(fSaid, {}); }

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
    const std::string kStalled = "client stalled: connected, but without an answer for 3 s";
};

TEST_F(PageWatchTest, RepeatsTheLinkAtLongerIntervalsUntilSomebodyComes) {
    waitFor(9999ms);
    EXPECT_EQ(said(), Lines{});
    waitFor(1ms);
    EXPECT_EQ(said(), Lines{"link"});
    waitFor(19999ms);
    EXPECT_EQ(said(), Lines{});
    fPages.views = 1;
    waitFor(1h);
    EXPECT_EQ(said(), Lines{});
}

TEST_F(PageWatchTest, CallsAPageStalledThatIsConnectedAndDoesNotAnswer) {
    fPages = {.pages = 1, .views = 1};
    waitFor(2999ms);
    fWatch.waiting(false);
    fNow += 1s;
    waitFor(2999ms);
    EXPECT_EQ(said(), Lines{});
    waitFor(1ms);
    waitFor(1h);
    EXPECT_EQ(said(), Lines{kStalled});
    fWatch.waiting(false);
    fWatch.look();
    EXPECT_EQ(said(), Lines{"client answers again"});
}

TEST_F(PageWatchTest, TellsAPageThatIsGoneFromOneThatWasDisconnected) {
    fPages = {.pages = 1, .views = 1, .disconnected = 4};
    waitFor(3s);
    EXPECT_EQ(said(), Lines{kStalled});
    fPages = {.views = 1, .disconnected = 5};
    note(true);
    note(true);
    EXPECT_EQ(said(), Lines{"client stalled for so long that it was disconnected"});
    note(false);
    note(true);
    EXPECT_EQ(said(), (Lines{"client there", "client gone"}));
}

}  // namespace
