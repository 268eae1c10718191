#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "ChannelList.hpp"
#include "CharacterEnd.hpp"
#include "FrameReader.hpp"
#include "GuardedLog.hpp"
#include "PageMessages.hpp"
#include "TextEncoding.hpp"
#include "kirohost/Controls.hpp"

using namespace kirogateway;
using namespace std::string_literals;

TEST(TextEncoding, LetsOnlyValidTextWithoutSeparatorsPassAsItIs) {
    const std::pair<std::string, bool> table[] = {
        {R"({"x":NaN})", true},
        {"\x01\x1d\x20\x7f", true},
        {"\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xed\x9f\xbf \xee\x80\x80 \xf0\x90\x80\x80 "
         "\xf4\x8f\xbf\xbf",
         true},
        {"\xc3\xa9 and forty bytes that are ASCII, no less", true},
        {"\xc3\xa9 and thirty of ASCII, then one\x1e", false},
        {"a\x1f", false},
        {"\xc1\xbf", false},          // overlong
        {"\xe0\x9f\xbf", false},      // the same
        {"\xf0\x8f\xbf\xbf", false},  // the same
        {"\xed\xa0\x80", false},      // a surrogate
        {"\xf4\x90\x80\x80", false},  // above U+10FFFF
        {"\xf5\x80\x80\x80", false},  // the same
        {"\xe2\x82", false},          // cut
        {"\xc3z", false},
        {"\xf0\x90\x80z", false},
        {"\x80", false},
    };
    for (const auto& [end, isText] : table) {
        // At each place in and behind a word of eight bytes.
        for (std::size_t before = 0; before < 9; ++before) {
            const auto text = std::string(before, 'x') + end;
            EXPECT_EQ(isPlain(text), isText) << escaped(text);
            EXPECT_EQ(isPlain(text + std::string(8, 'y')), isText) << escaped(text);
            const auto longer = text + std::string(20, '\x1e');
            EXPECT_EQ(isPlain(std::string_view(longer).substr(0, text.size())), isText);
        }
    }
}

TEST(TextEncoding, EncodesBase64) { EXPECT_EQ(encodeBase64("\xff\xfe\xfd\x00"s), "//79AA=="); }

TEST(CharacterEnd, IsWhereATextIsWhole) {
    const auto text = "a\xc3\xa9z\xe2\x82\xac\xf0\x9f\x98\x80\xf0\x9f\x98\x80y\xc2\x80"s;
    for (const std::size_t piece : {1U, 2U, 3U, 5U, 99U}) {
        for (std::size_t size = 0; size <= text.size(); ++size) {
            CharacterEnd end;
            for (std::size_t at = 0; at < size; at += piece) {
                end.read(std::string_view(text).substr(at, std::min(piece, size - at)));
            }
            EXPECT_EQ(end.isWithin(), !isPlain(text.substr(0, size))) << size;
        }
    }
}

TEST(ChannelList, CoversARequestOnlyIfAllOfItIsAllowed) {
    ChannelList allowed({"/fig/*", "/fig/*", "/log"});
    for (const char* request : {"/fig/1", "/fig/", "/fig/*", "/fig/a/*", "/log"}) {
        EXPECT_TRUE(allowed.covers(request)) << request;
    }
    for (const char* request : {"/fig", "/*", "/log/*", "/log/a", "/lo*"}) {
        EXPECT_FALSE(allowed.covers(request)) << request;
    }
    EXPECT_TRUE(allowed.matches("/fig/1"));
    allowed.add("/lab/*");  // as long
    for (int i = 0; i < 2; ++i) allowed.remove("/fig/*");
    EXPECT_FALSE(allowed.matches("/fig/1"));
    EXPECT_TRUE(allowed.matches("/lab/1"));
    EXPECT_TRUE(allowed.addUpTo(2, "/lab/*")) << "it is there";
    EXPECT_FALSE(allowed.addUpTo(2, "/new"));
    EXPECT_GT(allowed.bytes(), 10U);
    for (const auto& channel : allowed.channels()) allowed.remove(channel);
    EXPECT_EQ(allowed.size() + allowed.bytes(), 0U);
}

namespace {

/// What a page says in `frame`, of which `piece` bytes come at a time. Throws as the reader does.
std::vector<wire::PageMessage> readFrame(std::string_view frame, std::size_t piece) {
    FrameReader reader(3);
    std::vector<wire::PageMessage> messages;
    const FrameReader::Handler keep = [&](wire::PageMessage&& message) {
        messages.push_back(std::move(message));
        return true;
    };
    for (int again = 0; again < 2; ++again) {  // a reader serves one frame after the other
        messages.clear();
        for (auto rest = frame;; rest.remove_prefix(piece)) {
            const bool isLast = rest.size() <= piece;
            reader.read(rest.substr(0, piece), isLast, keep);
            if (isLast) break;
        }
    }
    EXPECT_EQ(reader.held(), 0U);
    return messages;
}

}  // namespace

TEST(FrameReader, ReadsMessagesFromTheirBytesHoweverTheyCome) {
    const std::string frame =
        R"([{"t":"hello","version":1,"view":"v","last":7,"limits":{"block":9,"x":[1]},)"
        R"("refused":[1,2]}, {"text":"\u00e9\ud83d\\\ud83d\uDE00\udc00x\\ud800","x":{"t":["deep"]},"channel":"c",)"
        R"("t":"publish"},{"t":"echo","id":1.50},{"t":"echo","id":"\u0041"},{"t":"later","more":null},)"
        R"({"t":"subscribe","channels":["a"],"channels":["b","c"]},)"
        R"({"t":"block","transfer":4294967296,"ok":true,"ok":false}] )";
    for (const std::size_t piece : {1UL, 2UL, 7UL, 1000UL}) {
        const auto messages = readFrame(frame, piece);
        ASSERT_EQ(messages.size(), 7U);
        const auto& hello = std::get<wire::Hello>(messages[0]);
        EXPECT_EQ(hello.last, 7U);
        EXPECT_EQ(hello.refused, (std::vector<std::uint64_t>{1, 2}));
        EXPECT_EQ(std::get<wire::Publish>(messages[1]).text,
                  "\xc3\xa9\xef\xbf\xbd\\\xf0\x9f\x98\x80\xef\xbf\xbdx\\ud800")
            << "half a character is replaced";
        EXPECT_EQ(std::get<wire::Echo>(messages[2]).id, "1.50") << "as it was written";
        EXPECT_EQ(std::get<wire::Echo>(messages[3]).id, "\"A\"") << "the same text";
        EXPECT_EQ(std::get<wire::Subscribe>(messages[5]).channels,
                  (std::vector<std::string>{"b", "c"}));
        EXPECT_EQ(std::get<wire::BlockAnswer>(messages[6]).transfer, 4294967296U);
        EXPECT_FALSE(std::get<wire::BlockAnswer>(messages[6]).ok);
    }
}

TEST(FrameReader, TakesWholeNumbersHoweverTheyAreWritten) {
    for (const auto& [written, number] : {std::pair("0", 0UL),
                                          {"2.0", 2UL},
                                          {"2e1", 20UL},
                                          {"18446744073709551615", ~0UL},
                                          {"9007199254740992.0", 9007199254740992UL}}) {
        const auto messages = readFrame(R"({"t":"ack","last":)"s + written + "}", 3);
        EXPECT_EQ(std::get<wire::Ack>(messages.at(0)).last, number) << written;
        const auto hello = readFrame(
            R"({"t":"hello","version":1,"limits":{"x":{"block":7},"block":)"s + written + "}}", 3);
        EXPECT_EQ(std::get<wire::Hello>(hello.at(0)).maxBlock, number) << written;
    }
    const auto none = readFrame(R"({"t":"hello","version":1,"limits":{"x":{"block":7}}})", 99);
    EXPECT_EQ(std::get<wire::Hello>(none.at(0)).maxBlock, ~0UL);
    EXPECT_TRUE(std::get<wire::Hello>(none.at(0)).refused.empty());
}

TEST(FrameReader, HoldsTheMessageAtHandAndPassesOverTheRestOfAFrame) {
    FrameReader reader(3);
    std::size_t count = 0;
    const FrameReader::Handler last = [&](wire::PageMessage&&) { return ++count == 0; };
    reader.read(R"([{"t":"publish","channel":"a","text":"0123)", false, last);
    EXPECT_EQ(reader.held(), 12U);
    reader.read(R"("},{"t":"ack","last":1},)", false, last);
    reader.read("is no JSON", true, last);
    EXPECT_EQ(count, 1U);
    reader.read(R"({"t":"ack","last":1})", true, last);
    EXPECT_EQ(count, 2U);
}

TEST(FrameReader, RefusesWhatIsNoMessageAndWhatIsTooMuch) {
    std::string many = "[1";
    for (int i = 0; i < 4096; ++i) many += ",1";
    const auto hello = R"({"t":"hello","version":1,)"s;
    std::vector<std::string> wrong;
    for (const char* value : {"7", "true", "null", R"("x")", "[1]"}) {
        for (const char* around : {"", "["}) {
            wrong.push_back(around + std::string(value) + (*around != 0 ? "]" : ""));
        }
        wrong.push_back(hello + R"("limits":)" + value + "}");
    }
    for (const char* value : {"-1", "1.5", "1e17", "true", "null", R"("x")"}) {
        wrong.push_back(R"({"t":"ack","last":)"s + value + "}");
        wrong.push_back(hello + R"("refused":[1,)" + value + "]}");
        wrong.push_back(hello + R"("limits":{"block":)" + value + "}}");
    }
    for (const char* value : {"1", "true", "null", "[]", "{}", R"(["a"])", R"({"a":"b"})"}) {
        wrong.push_back(R"({"t":"subscribe","channels":[)"s + value + "]}");
        wrong.push_back(R"({"t":"subscribe","channels":["a",)"s + value + "]}");
    }
    for (const auto& text : wrong) {
        EXPECT_THROW(static_cast<void>(readFrame(text, 99)), std::runtime_error) << text;
    }
    for (const auto& text :
         {""s, "["s, "{}x"s, "[[]]"s, R"({"t":"hello","version":1,"view":"v"})"s,
          R"([{"t":"publish","channel":"a","text":"b"},{"t":"publish","channel":"a"}])"s,
          R"({"t":"echo","id":[]})"s, R"({"t":"echo","id":true})"s,
          R"({"t":"echo","id":1,"time":1})"s,
          R"({"t":"echo","id":")"s + std::string(300, 'x') + "\"}",
          R"({"t":"ack","last":1,"x":[[[[[[[[1]]]]]]]]})"s,
          hello + R"("client":")" + std::string(257, 'x') + "\"}",
          hello + R"("refused":)" + many + "]}",
          R"([{"t":"subscribe","channels":["a","b"]},{"t":"subscribe","channels":["a","b"]}])"s}) {
        for (const std::size_t piece : {1UL, 100000UL}) {
            EXPECT_THROW(static_cast<void>(readFrame(text, piece)), std::runtime_error) << text;
        }
    }
    // What is too long to be used is not held either.
    const auto long_name =
        readFrame(R"({"t":"unsubscribe","channels":[")"s + std::string(100000, 'x') + "\"]}", 10);
    const auto& cut = std::get<wire::Unsubscribe>(long_name.at(0)).channels.at(0);
    EXPECT_GT(cut.size(), wire::kMaxChannelName);
    EXPECT_LT(cut.size(), 2000U);
}

TEST(GuardedLog, EscapesAndCountsWhatItLeavesOut) {
    EXPECT_EQ(escaped("a\n\x1b[31m\\\xff"), "a\\x0a\\x1b[31m\\\\\\xff");

    std::vector<std::string> lines;
    const auto observing = kirohost::observeLog(
        [&lines](const kirohost::LogRecord& record) { lines.push_back(record.text); });
    GuardedLog log;
    const GuardedLog::TimePoint start{std::chrono::hours(1)};
    for (int i = 0; i < 1000; ++i) log.write("flood", "x", start);
    const auto burst = lines.size();
    EXPECT_EQ(burst, 20U);
    for (int i = 0; i < 1000; ++i) log.write("flood", "x", start + std::chrono::seconds(1));
    EXPECT_EQ(lines.size(), burst + 5);
    EXPECT_EQ(lines[burst], "flood: x (980 lines left out before)");
    log.write("later", "", start + std::chrono::minutes(1));
    EXPECT_EQ(lines.back(), "later (995 lines left out before)");
}
