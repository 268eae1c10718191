// What only the stand-in has beside its interpreter: observers, settings, policies, a catalogue.

#include "kirohost/Controls.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/signals2/connection.hpp>
#include <future>
#include <locale>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bedrock/core/diag/assertion.hpp"
#include "bedrock/log/basic_diagnostic_logger.hpp"
#include "bedrock/memmgr/leaks.hpp"
#include "bedrock/text/convertUTF16.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "graphics_state/webSwitches.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"

namespace {

using Lines = std::vector<std::string>;

TEST(Observers, SeeWarningsWithArgumentsTextAndThread) {
    std::vector<kirohost::Warning> seen;
    auto scope =
        kirohost::observeWarnings([&seen](const auto& warning) { seen.push_back(warning); });
    qxWarningMsgId({"Quarn:graphics", "GraphicsBinarySendFailure"}, {"/b"});
    auto moved = std::move(scope);
    qxWarningMsgId({"Un", "known"}, {"x", "y"});
    moved = kirohost::Scope();
    qxWarningMsgId({"Un", "known"}, {"x", "y"});
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[0].id.key, "GraphicsBinarySendFailure");
    EXPECT_EQ(seen[0].arguments, Lines{"/b"});
    EXPECT_NE(seen[0].text.find("\"/b\""), std::string::npos);
    EXPECT_EQ(seen[0].thread, std::this_thread::get_id());
    EXPECT_EQ(seen[1].text, "Un:known \"x\" \"y\"");
}

TEST(Observers, AreNotCalledAfterTheirScopeEvenInsideARecord) {
    Lines seen;
    kirohost::Scope second;
    const auto first = kirohost::observeLog([&](const auto& record) {
        seen.push_back(record.logger + " " + record.text);
        second = kirohost::Scope();
    });
    second = kirohost::observeLog([&](const auto&) { seen.emplace_back("second"); });
    kiroutils::Logger::instance().log("l", "text");
    EXPECT_EQ(seen, Lines{"l text"});
}

TEST(Observers, MayComeAndGoWhileOtherThreadsLog) {
    std::atomic<int> numSeen = 0;
    std::promise<void> observed;
    std::thread logging([&] {
        for (int round = 0; round < 1000; ++round) kiroutils::Logger::instance().log("l", "t");
        observed.get_future().wait();
        kiroutils::Logger::instance().log("l", "t");
    });
    for (int round = 0; round < 100; ++round) {
        const auto scope = kirohost::observeLog([&numSeen](const auto&) { ++numSeen; });
    }
    numSeen = 0;
    const auto scope = kirohost::observeLog([&numSeen](const auto&) { ++numSeen; });
    observed.set_value();
    logging.join();
    EXPECT_GE(numSeen, 1);
}

TEST(Diagnostics, FilterByLevelAndWriteInTheClassicLocale) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '\''; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global({std::locale::classic(), new Grouping});
    std::vector<kirohost::LogRecord> seen;
    const auto scope =
        kirohost::observeDiagnostics([&seen](const auto& record) { seen.push_back(record); });
    const bedrock::log::basic_diagnostic_logger logger("d");
    const bedrock::log::basic_diagnostic_logger sameName("d");
    logger.record(3) << "block " << 1234567UL << std::string_view(" \0!", 3);
    std::locale::global(before);
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].text, std::string("block 1234567 \0!", 16));
    EXPECT_EQ(seen[0].logger, "d");
    EXPECT_EQ(seen[0].level, 3);
    EXPECT_TRUE(logger.enabled(4));
    EXPECT_FALSE(logger.enabled(5));
    kirohost::setDiagnosticLevel("d", 8);
    EXPECT_TRUE(sameName.enabled(8));
    kirohost::setDiagnosticsEnabled(false);
    EXPECT_FALSE(logger.enabled(0));
    kirohost::setDiagnosticsEnabled(true);
    kirohost::setDiagnosticLevel("d", 4);
}

TEST(Diagnostics, TakeManyThreads) {
    std::atomic<int> numSeen = 0;
    const auto scope = kirohost::observeDiagnostics([&numSeen](const auto& record) {
        if (record.text == "number 7") ++numSeen;
    });
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.emplace_back([] {
            const bedrock::log::basic_diagnostic_logger logger("shared");
            for (int round = 0; round < 100; ++round) logger.record(1) << "number " << 7UL;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(numSeen, 300);
}

TEST(Assertions, EndTheProcessUnlessAPolicySaysOtherwise) {
    using bedrock::core::diag::assertionFailed;
    const auto fail = [] { assertionFailed("a != b", "src/X", 12, "void x()"); };
    EXPECT_DEATH(fail(), "Assertion failed: a != b, src/X:12, void x\\(\\)\n$");
    std::vector<kirohost::FailedAssertion> seen;
    {
        const auto reporting =
            kirohost::setAssertionPolicy(kirohost::AssertionPolicy::kReport,
                                         [&seen](const auto& failed) { seen.push_back(failed); });
        fail();
        ASSERT_EQ(seen.size(), 1U);
        EXPECT_EQ(seen[0].condition + seen[0].source + seen[0].function, "a != bsrc/Xvoid x()");
        EXPECT_EQ(seen[0].line, 12);
        EXPECT_DEATH(bedrock::core::diag::terminate("c", "src/Y", 1, "f"),
                     "Terminated: c, src/Y:1, f");
        const auto ending =
            kirohost::setAssertionPolicy(kirohost::AssertionPolicy::kEndProcess, nullptr);
        EXPECT_DEATH(fail(), "a != b");
    }
    EXPECT_DEATH(fail(), "a != b");
}

TEST(Settings, BeginWithTheirDefaultsAndAreAskedEachTime) {
    EXPECT_FALSE(kiro::web::usingBinaryChannelForCommands());
    EXPECT_TRUE(kiro::web::usingBinaryChannelFallback());
    EXPECT_TRUE(kiro::web::warnAboutBinaryChannelFallback());
    EXPECT_EQ(GraphicsState::kiroGetDrawnowTimeout(), 60);
    EXPECT_FALSE(GraphicsState::kiroIsDrawnowTimeoutLoggingEnabled());
    EXPECT_FALSE(GraphicsState::isAtOstrel());
    GraphicsState::kiroInvokeDrawnowTimeoutCallback();

    int numCalls = 0;
    bool answer = false;
    kirohost::setSettings({.binaryChannelForCommands = true,
                           .binaryChannelFallback = false,
                           .warnAboutFallback = true,
                           .drawnowTimeoutSeconds = 5,
                           .drawnowTimeoutLogging = true,
                           .atOstrel = true,
                           .drawnowTimeoutCallback = [&numCalls] { ++numCalls; },
                           .answerWarnAboutFallback = [&answer] { return answer; }});
    EXPECT_TRUE(kiro::web::usingBinaryChannelForCommands());
    EXPECT_FALSE(kiro::web::usingBinaryChannelFallback());
    EXPECT_FALSE(kiro::web::warnAboutBinaryChannelFallback());
    answer = true;
    EXPECT_TRUE(kiro::web::warnAboutBinaryChannelFallback());
    EXPECT_EQ(GraphicsState::kiroGetDrawnowTimeout(), 5);
    EXPECT_TRUE(GraphicsState::kiroIsDrawnowTimeoutLoggingEnabled());
    EXPECT_TRUE(GraphicsState::isAtOstrel());
    kirohost::setSettings(kirohost::settings());
    GraphicsState::kiroInvokeDrawnowTimeoutCallback();
    EXPECT_EQ(numCalls, 1);
    kirohost::setSettings({});
    EXPECT_EQ(GraphicsState::kiroGetDrawnowTimeout(), 60);
}

TEST(Catalogue, KnowsEveryKeyAndFillsInItsArguments) {
    using namespace component_Quarn::catalog_graphics;
    const auto text = [](const auto& key, const Lines& arguments) {
        return bedrock::core::messageText(bedrock::core::messageId(key), arguments);
    };
    EXPECT_EQ(text(key_drawnowTimeout(), {"6", "r", "t", "{0}"}),
              "No answer came within 6 seconds. Requestor: r. Token: t. Details: {0}");
    const Lines one = {"<x>"};
    EXPECT_NE(text(key_timeoutDuringDrawnow(), one).find("<x>"), std::string::npos);
    EXPECT_NE(text(key_GraphicsBinarySendFailure(), one).find("<x>"), std::string::npos);
    EXPECT_NE(text(key_newView(), one).find("<x>"), std::string::npos);
    EXPECT_NE(text(key_reconnect(), one).find("<x>"), std::string::npos);
    EXPECT_EQ(text(key_GraphicsBinaryOOM(), {}).find("Quarn"), std::string::npos);
    EXPECT_EQ(text(key_newView(), {}), "The wait was ended by an event of the page: .");
    try {
        qxErrMsgId({"Quarn:class", "InvalidHandle"}, {});
    } catch (const QxError& error) {
        EXPECT_STREQ(error.what(), "Invalid or deleted object.");
    }
}

TEST(MemorySnapshot, CallsItsListenersWhileTheyAreConnected) {
    int numCalls = 0;
    {
        const boost::signals2::scoped_connection connection(
            bedrock::memmgr::leaks::registerListenerForSnapshotEvent([&numCalls] { ++numCalls; }));
        kirohost::takeMemorySnapshot();
    }
    kirohost::takeMemorySnapshot();
    EXPECT_EQ(numCalls, 1);
}

TEST(CharsetConverter, RefusesOtherCharsets) {
    EXPECT_THROW(bedrock::text::CharsetConverter("latin1"), std::invalid_argument);
}

}  // namespace
