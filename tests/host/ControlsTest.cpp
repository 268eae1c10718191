// What only the stand-in has beside its interpreter: observers, settings, policies.

#include "kirohost/Controls.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bedrock/core/diag/assertion.hpp"
#include "bedrock/log/basic_diagnostic_logger.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"

namespace {

using Lines = std::vector<std::string>;

TEST(Observers, SeeWarningsWithArgumentsTextAndThread) {
    std::vector<kirohost::Warning> seen;
    auto scope =
        kirohost::observeWarnings([&seen](const auto& warning) { seen.push_back(warning); });
    qxWarningMsgId({"Quarn:graphics", "GraphicsBinarySendFailure"}, {"/b"});
    const auto moved = std::move(scope);
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

TEST(Diagnostics, FilterByLevelAndKeepEveryByte) {
    std::vector<kirohost::LogRecord> seen;
    const auto scope =
        kirohost::observeDiagnostics([&seen](const auto& record) { seen.push_back(record); });
    const bedrock::log::basic_diagnostic_logger logger("d");
    const bedrock::log::basic_diagnostic_logger sameName("d");
    logger.record(3) << "block " << 1234567UL << std::string_view(" \0!", 3);
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

TEST(Assertions, EndTheProcessUnlessAPolicySaysOtherwise) {
    using bedrock::core::diag::assertionFailed;
    const auto fail = [] { assertionFailed("a != b", "src/X", 12, "void x()"); };
    {
        const auto policy =
            kirohost::setAssertionPolicy(kirohost::AssertionPolicy::kReport, nullptr);
        fail();
    }
    EXPECT_DEATH(fail(), "Assertion failed: a != b, src/X:12, void x\\(\\)\n$");
}

}  // namespace
