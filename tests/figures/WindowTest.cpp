#include "kirofigures/Window.hpp"

#include <unistd.h>

#include <array>
#include <csignal>

#include "Fixture.hpp"
#include "Signals.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;
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
    // Nobody says anything, or of another frame.
    fPage.next([](Page& page, const Frame& frame) { page.returnToken(frame); });
    EXPECT_EQ(drawn(), Outcome::kFailed);
    fPage.next([](Page& page, Frame frame) {
        ++frame.attempt;
        page.end(frame, "painted");
    });
    EXPECT_EQ(drawn(), Outcome::kFailed);
}

TEST_F(Outcomes, AreThoseOfThePageThatShowsMost) {
    fNumPages = [] { return 2; };
    const std::array<const char*, 3> rows[]{{"hidden", "painted", "painted"},
                                            {"hidden", "failed", "failed"},
                                            {"paused", "hidden", "paused"}};
    for (const auto& [one, other, expected] : rows) {
        fPage.next([one = one, other = other](Page& page, const Frame& frame) {
            page.end(frame, one);
            page.report(frame, other, "why");
        });
        EXPECT_STREQ(nameOf(drawn()), expected);
    }
    // Two of three have spoken, and the third one takes its time.
    Frame frame;
    const auto bothHidden = [&frame](Page& page, const Frame& asked) {
        frame = asked;
        for (int i = 0; i < 2; ++i) page.report(asked, "hidden");
        page.returnToken(asked);
    };
    int looks = 0;
    fNumPages = [&] {
        if (++looks == 1) kirohost::waitForDelivery();
        if (looks == 2) fPage.report(frame, "painted");
        return std::size_t{3};
    };
    fPage.next(bothHidden);
    EXPECT_EQ(drawn(), Outcome::kPainted);
    // The other one says nothing: it is not waited for long.
    fNumPages = [this] {
        advance(std::chrono::milliseconds(300));
        return 2;
    };
    fPage.next(outcome("hidden"));
    EXPECT_EQ(drawn(), Outcome::kHidden);
    fNumPages = [this] {
        fWindow->close();
        return std::size_t{2};
    };
    fPage.next(outcome("hidden"));
    EXPECT_EQ(drawn(), Outcome::kHidden) << "nor when the window is closed";
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
    EXPECT_FALSE(fWindow->requestor().isACTPending());
    fPage.next([&late](Page& page, const Frame& frame) {
        page.end(late, "painted");  // too late, and of another frame
        page.end(frame, "hidden");
    });
    EXPECT_EQ(this->drawn(), Outcome::kHidden);
}

TEST_F(Outcomes, AreOfTheirOwnFrameBehindADrawThatThrew) {
    fNumPages = []() -> std::size_t { throw std::bad_alloc(); };
    fPage.next(outcome("hidden"));  // so that it is asked how many pages there are
    EXPECT_THROW(fWindow->draw(), std::bad_alloc);
    const Drawn drawn = fWindow->draw();
    EXPECT_EQ(drawn.frame, 1U);
    EXPECT_EQ(drawn.outcome, Outcome::kPainted);
}

TEST_F(Outcomes, SayThatNobodyLooksAndSendNothingThen) {
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fPage.next([this](Page&, const Frame&) { fIsPageGone = true; });
    EXPECT_EQ(drawn(), Outcome::kNoPage);
    EXPECT_EQ(drawn(), Outcome::kNoPage);
    fIsPageGone = false;
    EXPECT_EQ(drawn(), Outcome::kPainted);
    EXPECT_EQ(sent(), "0/1 whole, 1/1, 3/1 whole");
}

TEST_F(Outcomes, SayThatTheWindowWasClosed) {
    EXPECT_TRUE(fWindow->isOpen());
    fPage.next([this](Page&, const Frame&) { fWindow->close(); });
    EXPECT_EQ(drawn(), Outcome::kInterrupted);
    EXPECT_FALSE(fWindow->isOpen());
    EXPECT_FALSE(fWindow->requestor().isACTPending());
    EXPECT_EQ(drawn(), Outcome::kInterrupted);
    EXPECT_EQ(fPage.frames().size(), 1U);
    fWindow->wait();  // returns
}

TEST_F(Outcomes, APageThatComesDuringTheWaitGetsTheFrameAgain) {
    axes().line("l").append(1, 2);
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fPage.next([](Page& page, const Frame&) { page.announce(); });
    EXPECT_EQ(fWindow->draw().frame, 1U);
    EXPECT_EQ(fPage.last().picture.size(), 3U);
    // Also while the engine waits, for one that comes back.
    fPage.next([this](Page& page, const Frame& frame) {
        page.end(frame, "painted");
        fWindow->close();
    });
    fPage.comeBack();
    fWindow->wait();
    EXPECT_EQ(sent(), "0/1 whole, 1/1, 1/2 whole, 1/3 whole");
}

TEST_F(Outcomes, AreNotThoseOfARepetition) {
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fPage.comeBack();
    kirohost::waitForDelivery();
    for (int i = 0; i < 2; ++i) fWindow->wait(std::chrono::seconds(0));
    EXPECT_EQ(fWindow->draw().frame, 1U);
    EXPECT_EQ(sent(), "0/1 whole, 0/2 whole, 1/1");
}

class TwoUnderWay : public WindowTest {
  protected:
    TwoUnderWay() : WindowTest(quiet([](auto& options) { options.underWay = 2; })) {
        fPage.announce();
    }
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
    const auto* const first = &fWindow->requestor();
    draw(Outcome::kPainted, 0);
    EXPECT_NE(&fWindow->requestor(), first) << "it is the latest frame's";
    EXPECT_EQ(fWindow->requestor().getAnnotation(), "frame 1");
    draw(Outcome::kHidden, 1);
    EXPECT_EQ(&fWindow->requestor(), first);
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
    EXPECT_EQ(sent(), "0/1 whole, 1/1, 0/2 whole, 1/2, 2/1");
    EXPECT_EQ(fPage.frames()[2].picture.at(3).columns.at("x").size(), 2U);
}

TEST_F(TwoUnderWay, ARepetitionIsTheFramesOwnNextAttempt) {
    draw(Outcome::kUnderWay, 0);
    fPage.comeBack();
    kirohost::waitForDelivery();
    fWindow->wait(std::chrono::seconds(0));
    draw(Outcome::kPainted, 0);
    kirohost::waitForDelivery();
    EXPECT_EQ(sent(), "0/1 whole, 0/2 whole, 1/1");
}

TEST_F(TwoUnderWay, WhatIsAnsweredIsNotSentAgain) {
    draw(Outcome::kUnderWay, 0);
    kirohost::waitForDelivery();
    fPage.comeBack();
    kirohost::waitForDelivery();
    draw(Outcome::kPainted, 0);
    kirohost::waitForDelivery();
    EXPECT_EQ(sent(), "0/1 whole, 1/1 whole");
}

class Windows : public WindowTest {};

TEST_F(Windows, DoNotWaitForAPageIfTheProgramWantsThat) {
    Window window(quiet([](auto& options) { options.waitsForPage = false; }));
    EXPECT_EQ(window.draw().outcome, Outcome::kNoPage);
}

TEST_F(Windows, HaveChannelsOfTheirOwnWhileTheyLive) {
    EXPECT_EQ(fWindow->channels().commands, "/figures/commands");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Window(quiet()).channels().commands, "/figures/2/commands");
    }
}

TEST_F(Windows, RefuseOptionsThatCannotBeMeant) {
    const std::pair<const char*, std::function<void(WindowOptions&)>> cases[]{
        {"underWay", [](auto& options) { options.underWay = 3; }},
        {"timeout", [](auto& options) { options.timeout = options.timeout.zero(); }},
        {"timeout", [](auto& options) { options.timeout *= std::nan(""); }},
        {"pages", [](auto& options) { options.pages = 0; }},
        {"title", [](auto& options) { options.title = "\xff"; }}};
    for (const auto& [what, change] : cases) {
        EXPECT_THAT(refusalOf([&change = change] { Window window(quiet(change)); }),
                    HasSubstr(what));
    }
}

// In processes of their own, where no thread is older than the window.
class Signals : public testing::Test {
  protected:
    Signals() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        // Whoever runs the tests may have them ignored.
        for (const int signal : {SIGINT, SIGTERM}) std::signal(signal, SIG_DFL);
    }
    static void get(int signal) { kill(getpid(), signal); }
    static void dieOf(int signal) {
        get(signal);
        pause();
    }

    WindowOptions fOptions = [] {
        WindowOptions options;
        options.serves = false;
        return options;
    }();
};

TEST_F(Signals, CloseTheWindowOnceIfTheProgramWantsThat) {
    const std::pair<int, std::function<void()>> cases[]{
        {SIGTERM,
         [this] {
             Window(fOptions).close();  // ends without any
             auto window = std::make_unique<Window>(fOptions);
             get(SIGTERM);
             if (window->draw().outcome != Outcome::kInterrupted || window->isOpen()) _exit(1);
             window.reset();
             dieOf(SIGTERM);  // as before the window
         }},
        {SIGINT,
         [this] {
             fOptions.handlesSignals = false;
             Window window(fOptions);
             dieOf(SIGINT);
         }},
    };
    for (const auto& [signal, program] : cases) {
        EXPECT_EXIT(program(), testing::KilledBySignal(signal), "");
    }
    std::signal(SIGINT, SIG_IGN);  // it stays so
    const auto ignoring = [this] {
        Window window(fOptions);
        get(SIGINT);
        const bool isOpen = window.isOpen();
        get(SIGTERM);
        window.draw();
        const bool isShared = detail::Signals::shared() == detail::Signals::shared();
        _exit(isOpen && !window.isOpen() && isShared ? 0 : 1);
    };
    EXPECT_EXIT(ignoring(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace figures_test
