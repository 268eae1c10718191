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
    /// A flush waits, this much later.
    void waitFor(std::chrono::milliseconds time) {
        fNow += time;
        fWatch.waiting();
    }
    Lines said() { return std::exchange(fSaid, {}); }

    std::chrono::steady_clock::time_point fNow{1h};
    kirogateway::Statistics fPages;
    Lines fSaid;
    PageWatch fWatch{{.ask = [this] { return fPages; },
                      .say = [this](std::string line) { fSaid.push_back(std::move(line)); },
                      .repeatLink = [this] { fSaid.push_back("link"); },
                      .now = [this] { return fNow; }},
                     10s};
    const std::string kStalled = "client stalled: connected, but without an answer for 3 s";
};

TEST_F(PageWatchTest, RepeatsTheLinkAtLongerIntervalsUntilSomebodyComes) {
    waitFor(0s);
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
    waitFor(0s);
    waitFor(2999ms);
    fWatch.answered();
    waitFor(1ms);
    waitFor(2999ms);
    EXPECT_EQ(said(), Lines{});
    waitFor(1ms);
    waitFor(1h);
    EXPECT_EQ(said(), Lines{kStalled});
    fWatch.answered();
    EXPECT_EQ(said(), Lines{"client answers again"});
}

TEST_F(PageWatchTest, TellsAPageThatIsGoneFromOneThatWasDisconnected) {
    fPages = {.pages = 1, .views = 1, .disconnected = 4};
    fWatch.note(false);
    waitFor(0s);
    waitFor(3s);
    EXPECT_EQ(said(), Lines{kStalled});
    fPages.disconnected = 5;
    fWatch.note(true);
    fWatch.note(true);
    EXPECT_EQ(said(), Lines{"client stalled for so long that it was disconnected"});
    fWatch.note(false);
    fWatch.note(true);
    EXPECT_EQ(said(), (Lines{"client there", "client gone"}));
}

}  // namespace
