// What the library relies on in the host's logs, warnings, assertions and settings.

#include <gtest/gtest.h>

#include <boost/signals2/connection.hpp>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "HostAdapter.hpp"
#include "bedrock/core/diag/assertion.hpp"
#include "bedrock/log/basic_diagnostic_logger.hpp"
#include "bedrock/memmgr/leaks.hpp"
#include "graphics_state/GraphicsState.hpp"
#include "graphics_state/webSwitches.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"

namespace {

using Lines = std::vector<std::string>;

TEST(Logger, KeepsTheLastEntriesOfAnEnabledHistory) {
    auto& logger = kiroutils::Logger::instance();
    const std::string name = "conformance";
    logger.log(name, "before");
    EXPECT_FALSE(logger.isHistoryEnabled(name));
    logger.setHistoryEnabled(name, true, 3, true);
    EXPECT_TRUE(logger.isHistoryEnabled(name));
    EXPECT_FALSE(logger.isHistoryEnabled("conformance, another"));
    for (const char* text : {"a", "b", "c", "d"}) logger.log(name, text);
    logger.log("conformance, another", "x");
    EXPECT_EQ(logger.history(name), (Lines{"b", "c", "d"}));
    logger.setHistoryEnabled(name, true, 2, true);
    EXPECT_EQ(logger.history(name), (Lines{"c", "d"}));
    logger.clearHistory(name);
    logger.log(name, "e");
    EXPECT_EQ(logger.history(name), Lines{"e"});
    logger.setHistoryEnabled(name, false, 2, false);
    logger.log(name, "after");
    EXPECT_EQ(logger.history(name), Lines());
}

TEST(Diagnostics, AreWrittenUpToTheLevelOfTheirLoggerOnly) {
    const std::string name = "conformance::diagnostics";
    const bedrock::log::basic_diagnostic_logger logger(name);
    const auto write = [&logger] {
        for (const int level : {2, 5, 8}) {
            if (logger.enabled(level)) logger.record(level) << "level " << std::uint64_t(level);
        }
    };
    conformance::setDiagnosticLevel(name, 5);
    EXPECT_EQ(conformance::diagnosticsOf(name, write), (Lines{"level 2", "level 5"}));
    conformance::setDiagnosticLevel(name, 8);
    EXPECT_EQ(conformance::diagnosticsOf(name, write), (Lines{"level 2", "level 5", "level 8"}));
    EXPECT_EQ(conformance::diagnosticsOf("conformance::another", write), Lines());
}

TEST(Warnings, AreIssuedAndThrowNothing) {
    const auto issue = [] {
        qxWarningMsgId({"Quarn:graphics", "drawnowTimeout"}, {"60", "requestor", "token", "why"});
        qxWarningMsgId({"Quarn:graphics", "timeoutDuringDrawnow"}, {"why"});
        qxWarningMsgId({"Quarn:graphics", "GraphicsBinarySendFailure"}, {"/channel"});
        qxWarningMsgId({"Quarn:graphics", "GraphicsBinaryOOM"}, {});
    };
    Lines issued;
    EXPECT_NO_THROW(issued = conformance::warningsOf(issue));
    EXPECT_EQ(issued, (Lines{"Quarn:graphics:drawnowTimeout", "Quarn:graphics:timeoutDuringDrawnow",
                             "Quarn:graphics:GraphicsBinarySendFailure",
                             "Quarn:graphics:GraphicsBinaryOOM"}));
}

TEST(Errors, CarryTheirIdentifier) {
    EXPECT_THROW(qxErrMsgId({"Quarn:class", "InvalidHandle"}, {}), QxError);
    try {
        qxErrMsgId({"some", "thing"}, {});
    } catch (const QxError& error) {
        EXPECT_EQ(error.messageId(), (bedrock::core::MessageId{"some", "thing"}));
    }
}

using Report = void (*)(const char*, const char*, int, const char*);

/// What the caller of an assertion in a process of its own ends with when it is not ended there.
constexpr int kReturned = 42;

[[noreturn]] void fail(Report report) {
    conformance::showAssertions();
    try {
        report("a != b", "src/X", 12, "void x()");
    } catch (...) {
        std::_Exit(kReturned);
    }
    std::_Exit(kReturned);
}

TEST(Assertions, AreReportedWhateverComesOfThem) {
    const auto either = [](int /*status*/) { return true; };
    EXPECT_EXIT(fail(&bedrock::core::diag::assertionFailed), either,
                "a != b.*src/X.*12.*void x\\(\\)");
}

TEST(Assertions, EndTheProcessAtATerminate) {
    const auto hasEnded = [](int status) { return !testing::ExitedWithCode(kReturned)(status); };
    EXPECT_EXIT(fail(&bedrock::core::diag::terminate), hasEnded, "a != b.*src/X.*12.*void x\\(\\)");
}

TEST(MemorySnapshots, AreAnnouncedWhileTheConnectionIsThere) {
    int announced = 0;
    boost::signals2::scoped_connection connection(
        bedrock::memmgr::leaks::registerListenerForSnapshotEvent([&announced] { ++announced; }));
    conformance::takeMemorySnapshot();
    EXPECT_EQ(announced, 1);
    connection.disconnect();
    conformance::takeMemorySnapshot();
    EXPECT_EQ(announced, 1);
}

/// The settings as the library reads them, in the order of `conformance::Settings`.
std::vector<std::int64_t> readSettings() {
    return {kiro::web::usingBinaryChannelForCommands() ? 1 : 0,
            kiro::web::usingBinaryChannelFallback() ? 1 : 0,
            kiro::web::warnAboutBinaryChannelFallback() ? 1 : 0,
            GraphicsState::kiroGetDrawnowTimeout(),
            GraphicsState::kiroIsDrawnowTimeoutLoggingEnabled() ? 1 : 0,
            GraphicsState::isAtOstrel() ? 1 : 0};
}

TEST(GraphicsSettings, AreReadAfreshEachTimeAndApart) {
    using Settings = conformance::Settings;
    const std::vector<std::function<void(Settings&)>> changes = {
        [](Settings& all) { all.binaryChannelForCommands = true; },
        [](Settings& all) { all.binaryChannelFallback = true; },
        [](Settings& all) { all.warnAboutFallback = true; },
        [](Settings& all) { all.drawnowTimeoutSeconds = 1; },
        [](Settings& all) { all.drawnowTimeoutLogging = true; },
        [](Settings& all) { all.atOstrel = true; },
    };
    for (std::size_t index = 0; index < changes.size(); ++index) {
        Settings settings;
        changes[index](settings);
        conformance::apply(settings);
        std::vector<std::int64_t> expected(changes.size(), 0);
        expected[index] = 1;
        EXPECT_EQ(readSettings(), expected) << "setting " << index;
    }
    int called = 0;
    Settings hooked;
    hooked.drawnowTimeoutSeconds = std::int64_t{1} << 40U;
    hooked.drawnowTimeoutHook = [&called] { ++called; };
    conformance::apply(hooked);
    EXPECT_EQ(GraphicsState::kiroGetDrawnowTimeout(), hooked.drawnowTimeoutSeconds);
    GraphicsState::kiroInvokeDrawnowTimeoutCallback();
    EXPECT_EQ(called, 1);
    conformance::apply({});
    GraphicsState::kiroInvokeDrawnowTimeoutCallback();
    EXPECT_EQ(called, 1);
}

}  // namespace
