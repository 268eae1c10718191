#include "kiroutils/Logger.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kirohost/Controls.hpp"

namespace {

using Texts = std::vector<std::string>;

const char* const kLog = "test/history";

class History : public testing::Test {
  protected:
    void enable(std::size_t maxEntries = 100, bool keep = false) {
        logger.setHistoryEnabled(kLog, true, maxEntries, keep);
    }
    ~History() override {
        logger.setMaxHistoryBytes(std::size_t{16} << 20U);
        logger.setHistoryEnabled(kLog, false, 0, false);
    }
    kiroutils::Logger& logger = kiroutils::Logger::instance();
};

TEST_F(History, SaysWhetherAnybodyReads) {
    EXPECT_FALSE(logger.isRead(kLog));
    enable();
    EXPECT_TRUE(logger.isRead(kLog));
    EXPECT_FALSE(logger.isRead("test/other"));
    {
        const auto observer = kirohost::observeLog([](const kirohost::LogRecord&) {});
        EXPECT_TRUE(logger.isRead("test/other"));
    }
    EXPECT_FALSE(logger.isRead("test/other"));
    logger.setHistoryEnabled(kLog, false, 100, true);
    EXPECT_FALSE(logger.isRead(kLog));
}

TEST_F(History, KeepsTheNewestWithinItsEntriesAndItsBytes) {
    enable(3);
    logger.setMaxHistoryBytes(8);
    const struct {
        std::string text;
        Texts kept;
    } steps[] = {{"aaaa", {"aaaa"}},   {"bbbb", {"aaaa", "bbbb"}},
                 {"c", {"bbbb", "c"}}, {"longer than all", {"longer than all"}},
                 {"d", {"d"}},         {"e", {"d", "e"}},
                 {"", {"d", "e", ""}}, {"f", {"e", "", "f"}}};
    for (const auto& step : steps) {
        logger.log(kLog, step.text);
        EXPECT_EQ(logger.history(kLog), step.kept) << step.text;
    }
    logger.setMaxHistoryBytes(1);
    EXPECT_EQ(logger.history(kLog), (Texts{"", "f"}));
    enable(1, true);
    EXPECT_EQ(logger.history(kLog), Texts{"f"});
}

TEST_F(History, CountsItsBytesAnewWhenItIsEmptied) {
    logger.setMaxHistoryBytes(8);
    for (const bool byClearing : {true, false}) {
        enable();
        logger.log(kLog, "12345678");
        if (byClearing) {
            logger.clearHistory(kLog);
        } else {
            enable();
        }
        logger.log(kLog, "1234");
        logger.log(kLog, "5678");
        EXPECT_EQ(logger.history(kLog).size(), 2U);
    }
}

TEST_F(History, KeepsSixteenMebibytesUnlessSet) {
    enable(400);
    for (int i = 0; i < 20; ++i) logger.log(kLog, std::string(3U << 20U, 'x'));
    EXPECT_EQ(logger.history(kLog).size(), 5U);
}

}  // namespace
