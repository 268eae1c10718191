// What programs make of a recording: parts of it, and tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>

#include "Csv.hpp"
#include "Cut.hpp"
#include "Memory.hpp"
#include "kirorecording/Run.hpp"

namespace recording_test {
namespace {

using namespace kirorecording;
using namespace recording_tool;
using namespace std::string_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kBegin = 1'700'000'000 * kSecond;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

template <typename Number>
std::string bytesOf(std::initializer_list<Number> numbers) {
    std::string bytes(numbers.size() * sizeof(Number), '\0');
    std::memcpy(bytes.data(), numbers.begin(), bytes.size());
    return bytes;
}

std::string block(std::uint32_t low, const std::string& data) {
    return bytesOf<std::uint32_t>({low, 0}) + data;
}

/// A run that is written message by message.
class Film {
  public:
    Film() {
        for (const auto& channel : runChannels()) fWriter.add(channel);
        say(Topic::kConnections, R"({"event":"begin","title":"A run"})");
    }
    /// What is said next is right behind that second of the run.
    void at(std::uint64_t second) { fTime = kBegin + second * kSecond + 1; }
    void say(Topic topic, const std::string& data) {
        fWriter.write(static_cast<std::uint16_t>(topic), fTime++, data);
    }
    void command(const std::string& members) {
        say(Topic::kCommands, "{\"seq\":1," + members + "}");
    }
    void begin(bool isWhole) {
        command(std::string(R"("cmd":"beginFrame","whole":)") + (isWhole ? "true" : "false"));
    }
    void mark(int frame, bool isWhole) {
        say(Topic::kFrames, "{\"frame\":" + std::to_string(frame) + ",\"kind\":\"" +
                                (isWhole ? "whole" : "changes") + "\"}");
        // A chunk for each.
        fWriter.flush();
    }
    /// Elements, as a block and the command that names it.
    void data(const std::string& columns, int first, int count, const std::string& bytes,
              const std::string& more = "") {
        ++fBlock;
        say(Topic::kBlocks, block(fBlock, bytes));
        command("\"cmd\":\"data\",\"id\":3,\"data\":\"" + std::to_string(fBlock) +
                " 0\",\"first\":" + std::to_string(first) + ",\"count\":" + std::to_string(count) +
                ",\"columns\":" + columns + more);
    }
    std::string end() {
        fWriter.close();
        return std::move(fSink.bytes);
    }

  private:
    MemorySink fSink;
    Writer fWriter{fSink};
    std::uint64_t fTime = kBegin;
    std::uint32_t fBlock = 0;
};

constexpr const char* kXY = R"([["x","f64"],["y","f64"]])";
constexpr const char* kFigure = R"("cmd":"create","id":1,"type":"figure")";
constexpr const char* kAxes = R"("cmd":"create","id":2,"type":"axes","parent":1)";

constexpr const char* kImage = R"("cmd":"create","id":3,"type":"image","parent":2)";
constexpr const char* kLine = R"("cmd":"create","id":3,"type":"line","parent":2,"name":"A wave")";

void makeLine(Film& film, const std::string& axes = "", const std::string& line = "") {
    film.begin(true);
    film.command(kFigure);
    film.command(kAxes + axes);
    film.command(kLine + line);
}

/// The elements (0, 0) to (n, n * n), as columns.
std::string squares(int n) {
    std::string values;
    for (int i = 0; i <= n; ++i) values += bytesOf<double>({1. * i});
    for (int i = 0; i <= n; ++i) values += bytesOf<double>({1. * i * i});
    return values;
}

std::string snapshotOf(int n) {
    const auto commands = std::string(R"([{"cmd":"beginFrame","whole":true},{)") + kFigure + "},{" +
                          kAxes + "},{" + kLine +
                          R"(}, {"cmd":"data","id":3,"data":"9 9","first":0,"columns":)" + kXY +
                          ",\"count\":" + std::to_string(n + 1) + "}]";
    const auto text =
        "{\"frame\":" + std::to_string(n) + ",\"seq\":1,\"commands\":" + commands + "}";
    const auto own = bytesOf<std::uint32_t>({9, 9}) + squares(n);
    return bytesOf<std::uint32_t>({static_cast<std::uint32_t>(text.size())}) + text +
           bytesOf<std::uint64_t>({own.size()}) + own;
}

/// A frame each second; frame n shows the squares up to n. 0 and 6 are whole, and behind 4 and 8
/// there is a snapshot.
std::string tenFrames() {
    Film film;
    for (int n = 0; n < 10; ++n) {
        film.at(static_cast<std::uint64_t>(n));
        const bool isWhole = n % 6 == 0;
        if (isWhole) {
            makeLine(film);
            film.data(kXY, 0, n + 1, squares(n));
        } else {
            film.begin(false);
            film.data(kXY, n, 1, bytesOf<double>({1. * n, 1. * n * n}));
        }
        film.mark(n, isWhole);
        film.say(Topic::kTokens, "{}");
        if (n % 4 == 0 && n > 0) film.say(Topic::kSnapshots, snapshotOf(n));
    }
    return film.end();
}

using Draw = std::function<void(Film&)>;

/// A file with a frame that has a line, and what is drawn.
std::string oneFrame(const Draw& draw, const std::string& axes = "", const std::string& line = "") {
    Film film;
    makeLine(film, axes, line);
    draw(film);
    film.mark(0, true);
    return film.end();
}

/// What a frame shows, as tables.
std::vector<std::pair<std::string, std::string>> shown(const Recording& run, std::uint64_t frame) {
    return tablesAt(run, run.timeOf(frame));
}

/// The numbers of the frames in a recording, each of which shows what it does in `whole`.
std::vector<std::uint64_t> framesOf(const std::string& bytes, const Recording& whole) {
    const MemorySource source(bytes);
    const Recording run(source);
    std::vector<std::uint64_t> frames;
    std::uint64_t last = 0;
    run.forEach({}, [&](const Entry& entry) {
        EXPECT_GT(entry.time, last) << "each has a time of its own";
        last = entry.time;
        if (entry.topic == Topic::kFrames) frames.push_back(markOf(entry.data).frame);
        return true;
    });
    for (const auto frame : frames) EXPECT_EQ(shown(run, frame), shown(whole, frame)) << frame;
    return frames;
}

TEST(Export, APartBeginsWhereAllOfItIsThereAndSaysWhatItIs) {
    const auto bytes = tenFrames();
    const MemorySource source(bytes);
    const Recording whole(source);
    constexpr auto kEnd = std::numeric_limits<std::uint64_t>::max();
    const auto second = [](std::uint64_t n) { return kBegin + n * kSecond; };
    const auto everything = cut(whole, {}, kEnd);
    EXPECT_EQ(everything.begin, kBegin);
    EXPECT_EQ(framesOf(everything.bytes, whole).size(), 10U);
    // When frame 5 begins the snapshot behind frame 4 is there; when frame 4 begins it is not.
    const auto part = cut(whole, {second(5), second(7) + kSecond / 2}, kEnd);
    EXPECT_THAT(framesOf(part.bytes, whole), ElementsAre(5, 6, 7));
    EXPECT_EQ(part.frames, 3U);
    const MemorySource own(part.bytes);
    const auto said = messagesOf(Reader(own));
    EXPECT_EQ(said.front(),
              (Said{"connections", part.begin, R"({"event":"begin","title":"A run"})"}));
    EXPECT_EQ(said[1].topic, "snapshots");
    EXPECT_EQ(said[1].time, part.begin + 1);
    EXPECT_THAT(framesOf(cut(whole, {second(4), second(4) + 4}, kEnd).bytes, whole),
                ElementsAre(0, 1, 2, 3, 4));
    EXPECT_THROW((void)cut(whole, {}, everything.bytes.size() - 1), TooLarge);
    EXPECT_EQ(cut(whole, {}, everything.bytes.size()).bytes, everything.bytes);
}

TEST(Export, ThinnedToASizeItHasKeyFramesEvenlySpreadEachWhole) {
    const auto bytes = tenFrames();
    const MemorySource source(bytes);
    const Recording whole(source);
    const auto all = thinned(whole, {}, std::numeric_limits<std::uint64_t>::max());
    EXPECT_TRUE(all.isThinned);
    EXPECT_THAT(framesOf(all.bytes, whole), ElementsAre(0, 4, 6, 8));
    const auto three = thinned(whole, {}, all.bytes.size() - 1);
    EXPECT_LT(three.bytes.size(), all.bytes.size());
    EXPECT_THAT(framesOf(three.bytes, whole), ElementsAre(0, 6, 8));
    const auto two = thinned(whole, {}, three.bytes.size() - 1);
    EXPECT_THAT(framesOf(two.bytes, whole), ElementsAre(0, 8));
    EXPECT_THAT(framesOf(thinned(whole, {}, two.bytes.size() - 1).bytes, whole), ElementsAre(0));
    EXPECT_THROW((void)thinned(whole, {}, 100), TooLarge);
    const Range late{kBegin + 7 * kSecond, kBegin + 9 * kSecond};
    EXPECT_THAT(framesOf(thinned(whole, late, 100'000).bytes, whole), ElementsAre(6, 8));
    EXPECT_THAT(framesOf(cut(whole, late, 100'000).bytes, whole), ElementsAre(6, 7, 8));
}

TEST(Export, TablesHaveWhatAFrameShows) {
    struct Case {
        const char* what;
        std::string axes;
        std::string line;
        Draw draw;
        std::string table;
        std::string name = "1-a-wave.csv";
    };
    const double inf = std::numeric_limits<double>::infinity();
    const std::vector<Case> cases{
        {"gaps", "", "",
         [&](Film& film) {
             film.data(kXY, 0, 3, bytesOf<double>({0, 0.1, 1e300, 1, kNaN, inf}));
         },
         "x,y\r\n0,1\r\n0.1,\r\n1e+300,Infinity\r\n"},
        {"the newest", "", R"(,"keep":2)",
         [](Film& film) {
             film.data(kXY, 0, 1, bytesOf<double>({1, 2}));
             film.data(kXY, 1, 2, bytesOf<double>({3, 4, 5, 6}));
         },
         "x,y\r\n3,5\r\n4,6\r\n"},
        {"regular, kept, and more before", "", R"(,"keep":2,"regular":[0.5,0.25])",
         [](Film& film) {
             film.data(R"([["y","f32"]])", 0, 1, bytesOf<float>({0.1F}), R"(,"base":7)");
             film.data(R"([["y","u8"]])", 8, 2, "\x01\xff");
         },
         "x,y\r\n2.5,1\r\n2.75,255\r\n"},
        {"set anew", "", "",
         [](Film& film) {
             film.data(kXY, 0, 1, bytesOf<double>({1, 2}));
             film.data(R"([["x","f32"],["y","f64"],["size","f32"]])", 0, 1,
                       bytesOf<float>({0.1F}) + bytesOf<double>({0.1}) + bytesOf<float>({4}));
         },
         "x,y,size\r\n0.1,0.1,4\r\n"},
        {"dates", R"(,"x":{"scale":"time"},"y2":{"scale":"time"})", R"(,"axis":"y2")",
         [](Film& film) {
             film.data(kXY, 0, 3, bytesOf<double>({0, -0.25, kNaN, 1e18, 1.7e9, 0.000001}));
         },
         "x,y\r\n1970-01-01T00:00:00Z,1e+18\r\n1969-12-31T23:59:59.750000Z,2023-11-14T22:13:20Z\r\n"
         ",1970-01-01T00:00:00.000001Z\r\n"},
        {"what is said later", "", R"(,"name":"first")",
         [](Film& film) {
             film.data(kXY, 0, 2, bytesOf<double>({1, 2, 3, 4}));
             film.command(R"("cmd":"set","id":3,"name":"\u0041 \"wave\"","keep":1)");
             film.command(R"("cmd":"set","id":3,"keep":null,"limits":[NaN,Infinity])");
         },
         "x,y\r\n2,4\r\n"},
        {"an image's pixels; what is removed is gone, and what has no elements has no table", "",
         "",
         [](Film& film) {
             film.data(kXY, 0, 1, bytesOf<double>({1, 2}));
             film.command(R"("cmd":"remove","id":2)");
             film.command(kAxes);
             film.command(kImage + R"(,"rows":2,"columns":2,"x":[0,4])"s);
             film.data(R"([["z","u8"]])", 0, 4, "\x01\x02\x03\x04");
             film.command(R"("cmd":"create","id":4,"type":"line","parent":2,"name":"empty")");
         },
         "x,y,z\r\n1,0.5,1\r\n3,0.5,2\r\n1,1.5,3\r\n3,1.5,4\r\n", "1-image-3.csv"},
    };
    for (const auto& [what, axes, line, draw, table, name] : cases) {
        const auto bytes = oneFrame(draw, axes, line);
        const MemorySource source(bytes);
        EXPECT_THAT(shown(Recording(source), 0), ElementsAre(Pair(name, table))) << what;
    }
}

TEST(Export, WhatCannotBeCarriedOutIsSaidWithItsOffset) {
    const auto said = [](const std::string& command) -> Draw {
        return [=](Film& film) { film.say(Topic::kCommands, command); };
    };
    const auto command = [said](const std::string& members) {
        return said("{\"seq\":1," + members + "}");
    };
    const auto data = [](const char* columns, int first, int count, std::size_t size) -> Draw {
        return [=](Film& film) { film.data(columns, first, count, std::string(size, 'x')); };
    };
    const std::vector<std::pair<const char*, Draw>> cases{
        {"an object that there is not", command(R"("cmd":"set","id":7)")},
        {"in one that there is not", command(R"("cmd":"create","id":9,"type":"x","parent":8)")},
        {"an object that there is", command(kFigure)},
        {"a block is missing",
         command(R"("cmd":"data","id":3,"data":"5 5","first":0,"count":0,"columns":[])")},
        {"too short", data(kXY, 0, 2, 8)},
        {"too short", data(kXY, 0, 2, 31)},
        {"too long", data(kXY, 0, 1, 17)},
        {"do not follow", data(kXY, 5, 1, 16)},
        {"other columns", data(R"([["x","f64"],["z","f64"]])", 1, 1, 16)},
        {"a column of no type", data(R"([["x","f63"]])", 0, 1, 8)},
        {"a bracket without an end", said(R"({"cmd":"set","id":3,"a":[})")},
        {"a text without an end", said(R"({"cmd":"set})")},
        {"no object", said("nothing")},
        {"is to be a count", command(R"("cmd":"set","id":-1)")},
        {"is to be two numbers", command(R"("cmd":"set","id":3,"regular":[1])")},
        {"rows or columns",
         [](Film& film) {
             film.command(R"("cmd":"remove","id":3)");
             film.command(kImage);
             film.data(R"([["z","u8"]])", 0, 1, "x");
         }},
    };
    for (const auto& [what, draw] : cases) {
        SCOPED_TRACE(what);
        const auto bytes = oneFrame([data, &draw = draw](Film& film) {
            data(kXY, 0, 1, 16)(film);
            draw(film);
        });
        const MemorySource source(bytes);
        try {
            (void)shown(Recording(source), 0);
            ADD_FAILURE() << "it was carried out";
        } catch (const FormatError& error) {
            EXPECT_THAT(error.what(), AllOf(HasSubstr("memory: offset "), HasSubstr(what)));
        }
    }
    Film film;
    film.begin(false);
    film.mark(0, false);
    const auto bytes = film.end();
    const MemorySource source(bytes);
    EXPECT_THROW((void)shown(Recording(source), 0), FormatError) << "nothing whole is before it";
}

}  // namespace
}  // namespace recording_test
