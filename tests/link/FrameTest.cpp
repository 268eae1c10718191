// The bytes of a link: what is written is read, and everything else is refused.
#include "Frame.hpp"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "OwnPage.hpp"

namespace link_test {
namespace {

using namespace kirolink;
using namespace std::string_literals;

Description description() {
    Description session;
    session.configuration = R"({"title":"a"})";
    session.mayPublish = {"/up", "/page/*"};
    session.maySubscribe = {"/c/*"};
    session.blockChannels = {};
    session.lanes = {{"/c/a", "/c/b"}, {}};
    session.tokenHash = std::string(64, '7');
    session.views = 3;
    session.pieceSize = 1 << 25U;
    session.page = {2, 70000, std::string(64, 'b')};
    return session;
}

std::string header(unsigned char type, const std::string& content) {
    return "KL\x01"s + static_cast<char>(type) + std::string(24, '\0') + content;
}

TEST(Frames, AreReadAsTheyWereWritten) {
    const std::vector<frame::Body> bodies{
        frame::Beat(),
        frame::End(),
        frame::Texts{{{"", "1"}, {"/a", ""}, {"/a", "2"}, {"/b", "3"}}},
        frame::Piece{true, "/b", 10, 3, "xyz"},
        frame::Piece{false, "", 0, 0, ""},
        frame::Announce{GatewayEnd::ViewKind::kReturn, 4, "Anna"},
        frame::Outcome{17, BlockOutcome::kNobody},
        frame::Pages{12},
        frame::Hello{"https://host:1/s/x"},
        frame::Presence{5, 6, -7, 8},
        frame::Leave(),
        frame::Welcome{description()},
        frame::Answer{1, -2, 3},
        frame::Dropped{"why"},
        frame::Ask{{{1, 1}, {3, 9}}},
        frame::Resent(),
        frame::Offer{"http://host/s/x/"},
        frame::Beat{true},
        frame::Fetch(),
        frame::Part{"<p>"},
    };
    for (const auto& body : bodies) {
        const auto bytes = writeFrame({1, ~0ULL, 1000}, body);
        const auto frame = readFrame(bytes);
        ASSERT_TRUE(frame) << body.index();
        EXPECT_EQ(frame->body.index(), body.index());
        EXPECT_EQ(frame->header.incarnation, ~0ULL);
        EXPECT_EQ(writeFrame(frame->header, frame->body), bytes) << body.index();
        for (std::size_t size = 0; size < 28; ++size) {
            EXPECT_FALSE(readFrame(bytes.substr(0, size)));
        }
    }
    const auto welcome = readFrame(writeFrame({}, frame::Welcome{description()}));
    const auto& session = std::get<frame::Welcome>(welcome->body).session;
    EXPECT_EQ(session.mayPublish, description().mayPublish);
    EXPECT_EQ(session.lanes, description().lanes);
    EXPECT_EQ(session.views, 3U);
    EXPECT_EQ(session.page, description().page);
}

TEST(Frames, CarryAnyText) {
    BatchWriter batch;
    std::vector<std::string> texts{"plain",
                                   "",
                                   "\x1f",
                                   "\x1e"
                                   "a",
                                   "\xff\xfe",
                                   "\xc3\xa4"};
    for (std::size_t size = 0; size < 8; ++size) texts.emplace_back(size, '\xf8');
    for (const auto& text : texts) batch.add("/a", text);
    const auto bytes = batch.frame({1, 0, 1});
    batch.clear();
    const auto frame = readFrame(bytes);
    ASSERT_TRUE(frame);
    std::vector<std::string> got;
    std::string space;
    for (const auto& record : std::get<frame::Texts>(frame->body).records) {
        EXPECT_EQ(record.channel, "/a");
        got.emplace_back(textOf(record, space));
    }
    EXPECT_EQ(got, texts);
    // An empty name stands for the channel before, so it has to be the first one.
    EXPECT_TRUE(batch.fits("", "x"));
    batch.add("/a", "x");
    EXPECT_FALSE(batch.fits("", "x"));
    EXPECT_FALSE(batch.fits("/a", std::string(kBatchSize, 'x')));
}

TEST(Frames, ThatAreMalformedAreRefused) {
    const auto number = [](std::uint64_t value, std::size_t size = 8) {
        std::string bytes;
        for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i));
        return bytes;
    };
    const auto changed = [](std::string bytes, std::size_t at, char to) {
        bytes.at(at) = to;
        return bytes;
    };
    const auto welcome = writeFrame({}, frame::Welcome{description()});
    const auto ask = [&](std::vector<std::uint64_t> numbers) {
        auto content = number(numbers.size() / 2, 1);
        for (const auto value : numbers) content += number(value);
        return header(14, content);
    };
    ASSERT_TRUE(readFrame(ask({1, 2, 4, 4})));
    const std::pair<const char*, std::string> cases[] = {
        {"other magic", changed(header(1, ""), 0, 'X')},
        {"another version", changed(header(1, ""), 2, '\x02')},
        {"no type", header(0, "")},
        {"unknown type", header(19, "")},
        {"a number that is too large", changed(header(1, ""), 26, '\x20')},
        {"a beat of something else", header(1, "x")},
        {"a part of nothing", header(18, "")},
        {"a part that is too large", header(18, std::string(kPagePart + 1, 'x'))},
        {"too large a frame", header(3, "\x1e/a\x1f" + std::string(kMaxFrame, 'x'))},
        {"no text", header(3, "")},
        {"no separator in front", header(3, "/a\x1ftext")},
        {"a record without a channel", header(3, "\x1etext")},
        {"a separator within a text", header(3,
                                             "\x1e/a\x1f"
                                             "a\x1f")},
        {"a text that is not UTF-8", header(3, "\x1e/a\x1f\xff")},
        {"a channel that is not UTF-8", header(3, "\x1e\xff\x1f")},
        {"Base64 with a hole", header(3,
                                      "\x1e/a\x1f\x1f"
                                      "QU")},
        {"Base64 of other characters", header(3,
                                              "\x1e/a\x1f\x1f"
                                              "QU-=")},
        {"Base64 with bits left over", header(3,
                                              "\x1e/a\x1f\x1f"
                                              "QUF=")},
        {"Base64 with an end in the middle", header(3,
                                                    "\x1e/a\x1f\x1f"
                                                    "QQ==QQ==")},
        {"a piece of nothing", header(4, "\x01" + number(5) + number(5) + number(0, 2))},
        {"a piece beyond its whole",
         header(4, "\x01" + number(1) + number(0) + number(0, 2) + "xy")},
        {"a piece far beyond",
         header(4, "\x01" + number(1) + number(1ULL << 52U) + number(0, 2) + "x")},
        {"a piece of neither", header(4, "\x02" + number(1) + number(0) + number(0, 2) + "x")},
        {"a piece with half a channel",
         header(4, "\x01" + number(1) + number(0) + number(9, 2) + "x")},
        {"too large a piece", header(4, "\x01" + number(1 << 20U) + number(0) + number(0, 2) +
                                            std::string(kPieceSize + 1, 'x'))},
        {"an unknown kind of view", header(5, "\x02" + number(1))},
        {"a long client", header(5, "\x01" + number(1) + std::string(257, 'x'))},
        {"an unknown outcome", header(6, number(1) + "\x03")},
        {"an address that is none", header(8, "javascript:1")},
        {"an address with an escape", header(8, "http://a\x1b[2J")},
        {"an offer of no address", header(16, "")},
        {"a long address", header(8, "http://" + std::string(1024, 'a'))},
        {"a time beyond all", header(9, number(1) + number(1ULL << 60U) + number(0) + number(0))},
        {"half a presence", header(9, number(1))},
        {"a token's hash that is none", changed(welcome, 28 + 16, 'G')},
        {"a configuration beyond the frame", changed(welcome, 28 + 16 + 64 + 2, '\x7f')},
        {"more lanes than are allowed",
         writeFrame({}, frame::Welcome{Description{
                            "{}", {}, {}, {}, {33, {"/c"}}, std::string(64, 'a'), 0, 0}})},
        {"a half welcome", welcome.substr(0, welcome.size() - 1)},
        {"a page of no files", changed(welcome, welcome.size() - 76, '\0')},
        {"a page of too many", changed(welcome, welcome.size() - 75, '\x10')},
        {"ranges that overlap", ask({1, 5, 5, 6})},
        {"ranges out of order", ask({4, 5, 1, 2})},
        {"a range backwards", ask({5, 4})},
        {"a range from nothing", ask({0, 4})},
        {"ranges that are not there", header(14, "\x02" + number(1) + number(1))},
        {"more ranges than are allowed", header(14, "\x41" + std::string(65 * 16, '\x01'))},
        {"a long reason", header(13, std::string(257, 'x'))},
    };
    for (const auto& [what, bytes] : cases) EXPECT_FALSE(readFrame(bytes)) << what;
}

/// The bytes of the block that begins with "```NAME" in the document.
std::string documented(const std::string& name) {
    std::ifstream document(KIROWEB_LINK_DOCUMENT);
    std::string line;
    while (std::getline(document, line) && line != "```" + name) {
    }
    std::string bytes;
    while (std::getline(document, line) && line != "```") {
        const auto end = line.find("   ");  // a remark follows
        std::istringstream digits(line.substr(0, end));
        for (std::string byte; digits >> byte;) {
            if (byte.size() != 2) break;
            bytes += static_cast<char>(std::stoul(byte, nullptr, 16));
        }
    }
    return bytes;
}

TEST(Frames, HaveTheBytesOfTheDocument) {
    constexpr std::uint64_t kEpoch = 0x0102030405060708;
    using frame::Ask;
    EXPECT_EQ(writeFrame({0, 10, 0}, frame::Hello{"https://g/s/run-7"}), documented("hello"));
    BatchWriter batch;
    batch.add("/fig", R"({"a":1})");
    batch.add("/fig", "[]");
    batch.add("/log", "\xff");
    EXPECT_EQ(batch.frame({kEpoch, 0, 42}), documented("texts"));
    EXPECT_EQ(writeFrame({kEpoch, 0, 43}, frame::Piece{true, "/fig", 5, 0, "\1\2\3\4\5"}),
              documented("piece"));
    EXPECT_EQ(writeFrame({kEpoch, 10, 42}, Ask{{{42, 42}}}), documented("ask"));
    EXPECT_EQ(writeFrame({kEpoch, 10, 1}, frame::Outcome{43, BlockOutcome::kDelivered}),
              documented("outcome"));
    EXPECT_EQ(writePage({{"/", "text/html", "<p>"}, {"/a", "", ""}}), documented("page"));
}

TEST(Pieces, HaveToFollowEachOther) {
    const auto piece = [](std::uint64_t total, std::uint64_t offset, std::string_view bytes,
                          std::string_view channel = "/b", bool isBlock = true) {
        return frame::Piece{isBlock, channel, total, offset, bytes};
    };
    using Result = Assembly::Result;
    Assembly assembly(10);
    EXPECT_EQ(assembly.add(piece(6, 0, "abc")), Result::kPart);
    EXPECT_EQ(assembly.add(piece(6, 3, "def")), Result::kWhole);
    EXPECT_EQ(assembly.take(), "abcdef");
    EXPECT_EQ(assembly.add(piece(0, 0, "")), Result::kWhole);
    EXPECT_EQ(assembly.take(), "");
    for (const auto& second : {piece(6, 4, "f"), piece(7, 3, "f"), piece(6, 3, "f", "/c"),
                               piece(6, 3, "f", "/b", false), piece(11, 0, "a")}) {
        EXPECT_EQ(assembly.add(piece(6, 0, "abc")), Result::kPart);
        EXPECT_EQ(assembly.add(second), Result::kBad);
        EXPECT_EQ(assembly.add(piece(6, 3, "def")), Result::kBad);  // it is forgotten
    }
}

}  // namespace
}  // namespace link_test
