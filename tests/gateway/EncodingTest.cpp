#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <variant>

#include "ChannelList.hpp"
#include "GuardedLog.hpp"
#include "PageMessages.hpp"
#include "TextEncoding.hpp"
#include "kirohost/Controls.hpp"

using namespace kirogateway;
using namespace std::string_literals;

TEST(TextEncoding, LetsOnlyValidTextWithoutSeparatorsPassAsItIs) {
    const struct {
        std::string text;
        bool isPlain;
    } table[] = {
        {R"({"x":NaN})", true},
        {"\x01\x1d\x20\x7f", true},
        {"\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xed\x9f\xbf \xee\x80\x80 \xf0\x90\x80\x80 "
         "\xf4\x8f\xbf\xbf",
         true},
        {"a\x1e", false},
        {"a\x1f", false},
        {"\x80", false},
        {"\xc1\xbf", false},          // overlong
        {"\xe0\x9f\xbf", false},      // overlong
        {"\xed\xa0\x80", false},      // a surrogate
        {"\xf0\x8f\xbf\xbf", false},  // overlong
        {"\xf4\x90\x80\x80", false},  // above U+10FFFF
        {"\xe2\x82", false},          // cut
    };
    for (const auto& row : table) {
        // At each place in and behind a word of eight bytes.
        for (std::size_t before = 0; before < 9; ++before) {
            const auto text = std::string(before, 'x') + row.text;
            EXPECT_EQ(isPlain(text), row.isPlain) << escaped(text);
            EXPECT_EQ(isPlain(text + std::string(8, 'y')), row.isPlain) << escaped(text);
        }
    }
}

TEST(TextEncoding, EncodesBase64) {
    EXPECT_EQ(encodeBase64("f"), "Zg==");
    EXPECT_EQ(encodeBase64("fo"), "Zm8=");
    EXPECT_EQ(encodeBase64("\xff\xfe\xfd\x00"s), "//79AA==");
}

TEST(ChannelList, CoversARequestOnlyIfAllOfItIsAllowed) {
    ChannelList allowed({"/fig/*", "/fig/*", "/log", "*", ""});
    for (const char* request : {"/fig/1", "/fig/", "/fig/*", "/fig/a/*", "/log", "*", ""}) {
        EXPECT_TRUE(allowed.covers(request)) << request;
    }
    for (const char* request : {"/fig", "/figs", "/*", "/log/*", "/log/a", "/lo*"}) {
        EXPECT_FALSE(allowed.covers(request)) << request;
    }
    EXPECT_TRUE(allowed.matches("/fig/1"));
    allowed.remove("/fig/*");
    EXPECT_FALSE(allowed.matches("/fig/1"));
}

TEST(PageMessages, AreReadFromAFrameOfSeveralOrNotAtAll) {
    const auto messages = wire::readFrame(R"([{"t":"hello","version":1,"view":"v","last":7},)"
                                          R"({"t":"publish","channel":"c","text":"\u00e9"},)"
                                          R"({"t":"echo","id":1.5},{"t":"later","more":1}])");
    ASSERT_EQ(messages.size(), 4U);
    EXPECT_EQ(std::get<wire::Hello>(messages[0]).last, 7U);
    EXPECT_TRUE(std::get<wire::Hello>(messages[0]).resume);
    EXPECT_EQ(std::get<wire::Publish>(messages[1]).text, "\xc3\xa9");
    EXPECT_EQ(std::get<wire::Echo>(messages[2]).id, "1.5E0");
    EXPECT_EQ(std::get<wire::Unknown>(messages[3]).what, "later");
    for (const char* text :
         {"[1]", R"({"t":"hello","version":1,"view":"v"})", R"({"t":"subscribe","channels":[1]})",
          R"({"t":"block","transfer":1.5,"ok":true})", R"({"t":"block","transfer":1,"ok":1})",
          R"({"t":"ack","last":1e30})", R"({"t":"echo","id":[]})", "[[[[[[[[[[1]]]]]]]]]]"}) {
        EXPECT_THROW(static_cast<void>(wire::readFrame(text)), std::runtime_error) << text;
    }
}

TEST(GuardedLog, EscapesAndCountsWhatItLeavesOut) {
    EXPECT_EQ(escaped("a\n\x1b[31m\\\xff"), "a\\x0a\\x1b[31m\\\\\\xff");
    EXPECT_EQ(escaped(std::string(5000, 'a')).size(), 203U);

    std::vector<std::string> lines;
    const auto observing = kirohost::observeLog(
        [&lines](const kirohost::LogRecord& record) { lines.push_back(record.text); });
    GuardedLog log;
    const GuardedLog::TimePoint start{std::chrono::hours(1)};
    for (int i = 0; i < 1000; ++i) log.write("flood", "x", start);
    const auto burst = lines.size();
    EXPECT_LT(burst, 50U);
    log.write("later", "", start + std::chrono::minutes(1));
    EXPECT_EQ(lines.back(), "later (" + std::to_string(1000 - burst) + " lines left out before)");
    {
        const auto throwing = kirohost::observeLog(
            [](const kirohost::LogRecord&) { throw std::runtime_error("no observer"); });
        log.write("lost", "", start + std::chrono::minutes(2));
    }
    log.write("found", "", start + std::chrono::minutes(3));
    EXPECT_EQ(lines.back(), "found (1 lines left out before)");
}
