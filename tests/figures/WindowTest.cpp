#include "kirofigures/Window.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <vector>

#include "Fixture.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kirohost/Controls.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;
using testing::ElementsAre;
using testing::HasSubstr;

class Outcomes : public WindowTest {
  protected:
    Outcomes() { fPage.announce(); }
};

TEST_F(Outcomes, AreWhatThePageSays) {
    axes().line("l").append(1, 2);
    for (const char* said : {"painted", "hidden", "paused", "failed"}) {
        fPage.next(outcome(said, "why"));
        const Drawn drawn = fWindow->draw();
        EXPECT_STREQ(nameOf(drawn.outcome), said);
        EXPECT_EQ(drawn.reason, said == std::string("failed") ? "why" : "");
        EXPECT_EQ(drawn.frame, fPage.last().number);
    }
}

TEST_F(Outcomes, AreNeverPaintedForWhatNobodySaidOrSaidOfAnotherFrame) {
    fPage.next([](Page& page, const Frame& frame) { page.returnToken(frame); });
    EXPECT_EQ(drawn(), Outcome::kFailed);
    fPage.next([](Page& page, const Frame& frame) {
        page.say({{"event", "frame"},
                  {"frame", frame.number},
                  {"attempt", frame.attempt + 1},
                  {"outcome", "painted"}});
        page.returnToken(frame);
    });
    EXPECT_EQ(drawn(), Outcome::kFailed);
}

TEST_F(Outcomes, AreThoseOfThePageThatShowsMost) {
    fNumPages = [] { return 2; };
    const auto say = [](Page& page, const Frame& frame, const char* what) {
        page.say({{"event", "frame"},
                  {"frame", frame.number},
                  {"attempt", frame.attempt},
                  {"outcome", what},
                  {"error", "why"}});
    };
    const std::pair<const char*, const char*> rows[]{
        {"painted", "painted"}, {"failed", "failed"}, {"hidden", "paused"}};
    for (const auto& [other, expected] : rows) {
        fPage.next([&say, other = other](Page& page, const Frame& frame) {
            page.end(frame, other == std::string("hidden") ? "paused" : "hidden");
            say(page, frame, other);
        });
        EXPECT_STREQ(nameOf(drawn()), expected);
    }
    // The other one says nothing: it is not waited for long.
    fNumPages = [this] {
        advance(std::chrono::milliseconds(300));
        return 2;
    };
    fPage.next(outcome("hidden"));
    EXPECT_EQ(drawn(), Outcome::kHidden);
}

TEST_F(Outcomes, SayThatAFrameIsLateAndWhyAndGoOn) {
    Frame late;
    fPage.next([this, &late](Page&, const Frame& frame) {
        late = frame;
        advance(std::chrono::seconds(10));
    });
    const Drawn drawn = fWindow->draw();
    EXPECT_EQ(drawn.outcome, Outcome::kLate);
    EXPECT_EQ(drawn.reason, "the cause");
    fPage.next([&late](Page& page, const Frame& frame) {
        page.end(late, "painted");  // too late, and of another frame
        page.end(frame, "hidden");
    });
    EXPECT_EQ(this->drawn(), Outcome::kHidden);
}

TEST_F(Outcomes, SayThatNobodyLooksAndSendNothingThen) {
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fPage.next([this](Page&, const Frame&) { fIsPageGone = true; });
    EXPECT_EQ(drawn(), Outcome::kNoPage);
    auto& line = axes().line("l").append(1, 2);
    EXPECT_EQ(drawn(), Outcome::kNoPage);
    EXPECT_EQ(fPage.frames().size(), 2U);
    fIsPageGone = false;
    line.append(2, 3);
    EXPECT_EQ(drawn(), Outcome::kPainted);
    EXPECT_TRUE(fPage.last().isWhole);
    EXPECT_EQ(fPage.last().number, 3U);
}

TEST_F(Outcomes, SayThatTheWindowWasClosed) {
    EXPECT_TRUE(fWindow->isOpen());
    fPage.next([this](Page&, const Frame&) { fWindow->close(); });
    EXPECT_EQ(drawn(), Outcome::kInterrupted);
    EXPECT_FALSE(fWindow->isOpen());
    EXPECT_EQ(drawn(), Outcome::kInterrupted);
    EXPECT_EQ(fPage.frames().size(), 1U);
    fWindow->wait();  // returns
}

class NoPage : public WindowTest {
  protected:
    static WindowOptions impatient() {
        auto options = quiet();
        options.waitsForPage = false;
        return options;
    }
    NoPage() : WindowTest(impatient()) {}
};

TEST_F(NoPage, IsAnOutcomeAndALaterPageGetsEverything) {
    axes().line("l").append(1, 2);
    EXPECT_EQ(drawn(), Outcome::kNoPage);
    fPage.announce();
    kirohost::waitForDelivery();
    EXPECT_EQ(drawn(), Outcome::kPainted);
    EXPECT_EQ(fPage.last().picture.size(), 3U);
}

TEST_F(WindowTest, TheFirstDrawWaitsForAPage) {
    // The task runs when something waits, and not before.
    const taskrouter::RunOptions options{taskrouter::WhenToDequeue::kWhenIdle, ""};
    qvm::detail::getTaskRouterAndSinks(graphics_util::getContextQCRID(), options)
        .router->enqueueWithFuture(
            taskrouter::PackagedTaskIIP<void>({[this] { fPage.announce(); }}, "test"), options,
            qvm::detail::createID());
    EXPECT_EQ(drawn(), Outcome::kPainted);
}

TEST_F(Outcomes, APageThatComesBetweenTwoDrawsGetsEverything) {
    auto& line = axes().line("l").append(1, 2);
    EXPECT_EQ(drawn(), Outcome::kPainted);
    EXPECT_TRUE(fPage.last().isWhole);
    line.append(2, 3);
    EXPECT_EQ(drawn(), Outcome::kPainted);
    EXPECT_FALSE(fPage.last().isWhole);
    for (const auto come : {&Page::announce, &Page::comeBack}) {
        const auto before = linesOf(fPage.last().picture);
        (fPage.*come)();
        kirohost::waitForDelivery();
        EXPECT_EQ(drawn(), Outcome::kPainted);
        EXPECT_TRUE(fPage.last().isWhole);
        EXPECT_EQ(linesOf(fPage.last().picture), before);
        EXPECT_EQ(drawn(), Outcome::kPainted);
        EXPECT_FALSE(fPage.last().isWhole);
    }
}

TEST_F(Outcomes, APageThatComesDuringTheWaitGetsTheFrameAgain) {
    axes().line("l").append(1, 2);
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fPage.next([](Page& page, const Frame&) { page.announce(); });
    const Drawn drawn = fWindow->draw();
    EXPECT_EQ(drawn.outcome, Outcome::kPainted);
    EXPECT_EQ(drawn.frame, 1U);
    const Frame again = fPage.last();
    EXPECT_EQ(again.number, 1U);
    EXPECT_EQ(again.attempt, 2U);
    EXPECT_TRUE(again.isWhole);
    EXPECT_EQ(again.picture.size(), 3U);
}

TEST_F(Outcomes, APageThatComesWhileTheEngineWaitsGetsEverything) {
    axes().line("l").append(1, 2);
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fPage.next([this](Page& page, const Frame& frame) {
        page.end(frame, "painted");
        fWindow->close();
    });
    fPage.announce();
    fWindow->wait();
    ASSERT_EQ(fPage.frames().size(), 2U);
    EXPECT_TRUE(fPage.last().isWhole);
    EXPECT_EQ(fPage.last().number, 0U);
    EXPECT_EQ(fPage.last().attempt, 2U);
}

class TwoUnderWay : public WindowTest {
  protected:
    static WindowOptions two() {
        auto options = quiet();
        options.underWay = 2;
        return options;
    }
    TwoUnderWay() : WindowTest(two()) { fPage.announce(); }
    void draw(Outcome outcome, std::uint64_t frame) {
        const Drawn drawn = fWindow->draw();
        EXPECT_STREQ(nameOf(drawn.outcome), nameOf(outcome)) << drawn.reason;
        EXPECT_EQ(drawn.frame, frame);
    }
};

TEST_F(TwoUnderWay, DrawAnswersForTheFrameBefore) {
    // Each frame is answered when the one behind it has come.
    Frame before;
    const auto answerBefore = [&before](const char* said) {
        return [&before, said](Page& page, const Frame& frame) {
            if (!before.token.empty()) page.end(before, said);
            before = frame;
        };
    };
    for (const char* said : {"", "painted", "hidden", "paused"}) fPage.next(answerBefore(said));
    draw(Outcome::kUnderWay, 0);
    draw(Outcome::kPainted, 0);
    draw(Outcome::kHidden, 1);
    draw(Outcome::kPaused, 2);
    const auto frames = fPage.frames();
    EXPECT_NE(frames[0].returnChannel, frames[1].returnChannel);
    EXPECT_EQ(frames[0].returnChannel, frames[2].returnChannel);
}

TEST_F(TwoUnderWay, BothAreSentAgainWhenAPageComes) {
    auto& line = axes().line("l").append(1, 2);
    fPage.next([](Page&, const Frame&) {});
    fPage.next([](Page& page, const Frame&) { page.announce(); });
    draw(Outcome::kUnderWay, 0);
    line.append(2, 3);
    draw(Outcome::kPainted, 0);
    draw(Outcome::kPainted, 1);
    kirohost::waitForDelivery();
    const auto frames = fPage.frames();
    ASSERT_EQ(frames.size(), 5U);
    std::vector<std::string> sent;
    for (const auto& frame : frames) {
        sent.push_back(std::to_string(frame.number) + '/' + std::to_string(frame.attempt) +
                       (frame.isWhole ? " whole" : ""));
    }
    EXPECT_THAT(sent, ElementsAre("0/1 whole", "1/1", "0/2 whole", "1/2", "2/1"));
    EXPECT_EQ(frames[2].picture.at(3).columns.at("x").size(), 2U);
}

TEST(Windows, HaveChannelsOfTheirOwnWhileTheyLive) {
    WindowOptions options;
    options.serves = options.handlesSignals = false;
    const auto first = std::make_unique<Window>(options);
    auto second = std::make_unique<Window>(options);
    EXPECT_EQ(first->channels().commands, "/figures/commands");
    EXPECT_EQ(second->channels().commands, "/figures/2/commands");
    second.reset();
    EXPECT_EQ(Window(options).channels().commands, "/figures/2/commands");
}

TEST(Windows, RefuseOptionsThatCannotBeMeant) {
    const auto refusal = [](auto change) {
        WindowOptions options;
        options.serves = options.handlesSignals = false;
        change(options);
        return refusalOf([&options] { Window window(options); });
    };
    EXPECT_THAT(refusal([](auto& o) { o.underWay = 3; }), HasSubstr("underWay"));
    EXPECT_THAT(refusal([](auto& o) { o.underWay = 0; }), HasSubstr("underWay"));
    EXPECT_THAT(refusal([](auto& o) { o.timeout = o.timeout.zero(); }), HasSubstr("timeout"));
    EXPECT_THAT(refusal([](auto& o) { o.timeout *= std::nan(""); }), HasSubstr("timeout"));
    EXPECT_THAT(refusal([](auto& o) { o.pages = 0; }), HasSubstr("pages"));
    EXPECT_THAT(refusal([](auto& o) { o.title = "\xff"; }), HasSubstr("title"));
}

// In processes of their own, where no thread is older than the window.
class Signals : public testing::Test {
  protected:
    Signals() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        // Whoever runs the tests may have them ignored.
        for (const int signal : {SIGINT, SIGTERM}) std::signal(signal, SIG_DFL);
    }
    static WindowOptions options() {
        WindowOptions options;
        options.serves = false;
        return options;
    }
};

TEST_F(Signals, CloseTheWindowOnce) {
    EXPECT_EXIT(
        {
            {
                Window window(options());
                kill(getpid(), SIGTERM);
                const bool isInterrupted = window.draw().outcome == Outcome::kInterrupted;
                if (window.isOpen() || !isInterrupted) _exit(1);
            }
            kill(getpid(), SIGTERM);  // as before the window
            pause();
        },
        testing::KilledBySignal(SIGTERM), "");
    EXPECT_EXIT(
        {
            Window window(options());
            kill(getpid(), SIGINT);
            window.draw();
            kill(getpid(), SIGINT);
            pause();
        },
        testing::KilledBySignal(SIGINT), "");
}

TEST_F(Signals, StayIgnoredWhenTheProcessWasStartedSo) {
    EXPECT_EXIT(
        {
            std::signal(SIGINT, SIG_IGN);
            Window window(options());
            kill(getpid(), SIGINT);
            const bool isOpen = window.isOpen();
            kill(getpid(), SIGTERM);
            window.draw();
            _exit(isOpen && !window.isOpen() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(Signals, AreLeftAloneWhenTheProgramWantsThem) {
    EXPECT_EXIT(
        {
            auto own = options();
            own.handlesSignals = false;
            Window window(own);
            kill(getpid(), SIGINT);
            pause();
        },
        testing::KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace figures_test
