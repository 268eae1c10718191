#include <unistd.h>

#include <boost/json/parse.hpp>
#include <cstring>
#include <filesystem>
#include <tuple>

#include "Fixture.hpp"
#include "Memory.hpp"
#include "kirorecording/Run.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;
using kirorecording::Topic;
using recording_test::messagesOf;
using recording_test::Said;
using testing::ElementsAre;
using testing::HasSubstr;
using Phase = RecordingState::Phase;

class RecordingTest : public WindowTest {
  protected:
    RecordingTest() {
        fPage.announce();
        kirohost::waitForDelivery();  // that is not recorded
        fWindow->figure("F");
    }
    ~RecordingTest() override { std::filesystem::remove(fFile); }

    /// Stops and reads.
    std::vector<Said> recorded() {
        fWindow->stopRecording();
        EXPECT_EQ(fWindow->recording().phase, Phase::kOff);
        const kirorecording::FileSource source(fFile);
        const kirorecording::Reader reader(source);
        EXPECT_FALSE(reader.damage());
        return messagesOf(reader);
    }
    static std::vector<std::string> of(Topic topic, const std::vector<Said>& all) {
        std::vector<std::string> found;
        for (const auto& one : all) {
            if (one.topic == nameOf(topic)) found.push_back(one.data);
        }
        return found;
    }
    static Follower followed(const std::vector<Said>& all, std::size_t from = 0) {
        Follower follower;
        for (std::size_t i = from; i < all.size(); ++i) follow(follower, all[i]);
        return follower;
    }

    const std::string fFile =
        testing::TempDir() + "kirofigures_recording_" + std::to_string(::getpid());

  private:
    static void follow(Follower& follower, const Said& one) {
        if (one.topic == "commands") follower.command(boost::json::parse(one.data).as_object());
        if (one.topic == "blocks") follower.block(one.data);
        // Where nothing is known yet a snapshot says it all.
        if (one.topic == "snapshots" && follower.sequence == 0) show(follower, one.data);
    }
    static void show(Follower& follower, std::string_view snapshot) {
        const auto take = [&snapshot](auto size) {
            std::memcpy(&size, snapshot.data(), sizeof size);
            const auto part = snapshot.substr(sizeof size, size);
            snapshot.remove_prefix(sizeof size + size);
            return part;
        };
        const auto head = boost::json::parse(take(std::uint32_t{})).as_object();
        while (!snapshot.empty()) follower.block(take(std::uint64_t{}));
        for (const auto& command : head.at("commands").as_array()) {
            follower.command(command.as_object());
        }
        follower.sequence = head.at("seq").to_number<std::uint64_t>();
    }
};

TEST_F(RecordingTest, HoldsWhatThePageGotAndCanBeReadFromEachOfItsSnapshots) {
    auto& kept = axes().line().keep(5);
    auto& regular = axes().line().keep(3);
    regular.set(Regular{10, 0.5}, {1, 2});
    fWindow->onKey([](const Key&) {});
    advance(std::chrono::hours(1));
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fWindow->record(fFile);
    EXPECT_EQ(fWindow->recording().phase, Phase::kOn);
    std::vector<std::vector<std::string>> pictures{linesOf(fPage.last().picture)};
    for (int i = 0; i < 12; ++i) {
        kept.append({1.0 * i, i + 0.5}, {2.0 * i, 7.0});
        regular.append(std::vector<double>{1.0 * i});
        if (i == 6) axes().text(0, 0, "late");
        EXPECT_EQ(drawn(), Outcome::kPainted);
        pictures.push_back(linesOf(fPage.last().picture));
        advance(std::chrono::seconds(1));
    }
    const auto all = recorded();
    EXPECT_GT(fWindow->recording().bytes, 1000U);
    std::vector<std::uint64_t> snapshots;  // of which frames
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto& [topic, time, data] = all[i];
        bytes += topic == "commands" || topic == "blocks" ? data.size() : 0;
        const bool isSnapshot = topic == nameOf(Topic::kSnapshots);
        if (i > 0 && !isSnapshot) continue;
        const auto follower = followed(all, i);
        EXPECT_THAT(follower.faults, ElementsAre());
        EXPECT_EQ(linesOf(follower.picture), pictures.back());
        if (!isSnapshot) continue;
        EXPECT_THAT(data, HasSubstr(R"("keys":true)"));
        // And by itself, as it was then.
        const auto alone = followed({all[i]});
        EXPECT_EQ(linesOf(alone.picture), pictures.at(alone.current.number));
        snapshots.push_back(alone.current.number);
    }
    EXPECT_THAT(snapshots, ElementsAre(4, 7, 10));  // each takes less room than what it spares

    const auto marks = of(Topic::kFrames, all);
    ASSERT_EQ(marks.size(), 12U);
    EXPECT_THAT(marks[0], HasSubstr(R"({"frame":1,"attempt":1,"kind":"whole","bytes":)"));
    EXPECT_THAT(marks[1], HasSubstr(R"({"frame":2,"attempt":1,"kind":"changes","bytes":)"));
    for (const auto& mark : marks) {
        bytes -= boost::json::parse(mark).at("bytes").to_number<std::size_t>();
    }
    EXPECT_EQ(bytes, 0U);
}

TEST_F(RecordingTest, SaysWhatBecameOfEachFrame) {
    fWindow->record(fFile);
    fPage.next(outcome("failed", "no ink"));
    EXPECT_EQ(drawn(), Outcome::kFailed);
    fPage.next([this](Page&, const Frame&) { advance(std::chrono::seconds(11)); });
    EXPECT_EQ(drawn(), Outcome::kLate);
    fPage.next([](Page& page, const Frame& frame) {
        page.say(R"({"event":"frame","frame":2,"attempt":1,"outcome":"painted",)"
                 R"("clientPaint":5,"clientSend":8})");  // with another page's token
        page.returnToken(frame);
    });
    EXPECT_EQ(drawn(), Outcome::kPainted);
    fIsPageGone = true;
    EXPECT_EQ(drawn(), Outcome::kNoPage);
    EXPECT_EQ(drawn(), Outcome::kNoPage);
    fIsPageGone = false;
    fPage.next([this](Page&, const Frame&) { fWindow->close(); });
    EXPECT_EQ(drawn(), Outcome::kInterrupted);
    const auto all = recorded();
    const auto tokens = of(Topic::kTokens, all);
    ASSERT_EQ(tokens.size(), 5U);  // of those that nobody sees, the first one
    EXPECT_THAT(tokens[0],
                HasSubstr(R"({"frame":0,"attempt":1,"outcome":"failed","reason":"no ink",)"));
    const auto stamps = boost::json::parse(tokens[0]).as_object();
    EXPECT_GE(stamps.at("serverReceive").as_int64(), stamps.at("serverSend").as_int64());
    EXPECT_GT(stamps.at("serverReceive").as_int64(), 0);
    EXPECT_THAT(tokens[0], HasSubstr(R"("clientPaint":5,"clientSend":7,)"));
    EXPECT_EQ(tokens[1], R"({"frame":1,"attempt":1,"outcome":"late","reason":"the cause",)"
                         R"("serverSend":0,"clientReceive":0,"clientPaint":0,"clientSend":0,)"
                         R"("serverReceive":0})");
    EXPECT_THAT(tokens[2], HasSubstr(R"("clientPaint":0,"clientSend":7,)"));
    EXPECT_THAT(tokens[3], HasSubstr(R"("frame":3,"attempt":0,"outcome":"no page")"));
    EXPECT_THAT(tokens[4], HasSubstr(R"("frame":5,"attempt":1,"outcome":"interrupted")"));
    EXPECT_THAT(of(Topic::kConnections, all),
                ElementsAre(R"({"event":"begin","vocabulary":"kirofigures/1","title":"Figures"})",
                            R"({"event":"gone"})"));
}

TEST_F(RecordingTest, ASnapshotThatHasNoRoomIsLeftOut) {
    const std::tuple<bool, std::size_t, std::size_t> cases[]{
        {false, 8'000'000, 1}, {false, 400'000, 0}, {true, 8'000'000, 1}, {true, 400'000, 0}};
    for (const auto& [areTexts, queue, expected] : cases) {
        auto options = quiet();
        options.recording = fFile;
        options.recordingQueue = queue;
        detail::Surroundings around;
        around.now = [this] { return std::chrono::steady_clock::time_point(fNow.load()); };
        auto window = detail::Surroundings::open(options, around);
        Page page(window->channels());
        page.announce();
        auto& axes = window->figure().axes();
        for (int i = 0; i < 16; ++i) {  // 300 KB in all, but not at once
            EXPECT_EQ(window->draw().outcome, Outcome::kPainted);
            const std::vector<double> values(areTexts ? 1 : 2500, 1.0);
            axes.line().append(values, values);
            axes.text(0, 0, std::string(areTexts ? 20'000 : 1, 't'));
        }
        advance(std::chrono::seconds(2));
        EXPECT_EQ(window->draw().outcome, Outcome::kPainted);
        EXPECT_EQ(window->recording().phase, Phase::kOn);
        window.reset();
        const kirorecording::FileSource source(fFile);
        const kirorecording::Reader reader(source);
        EXPECT_EQ(of(Topic::kSnapshots, messagesOf(reader)).size(), expected) << queue;
    }
}

TEST_F(RecordingTest, HoldsWhatPagesSay) {
    fWindow->record(fFile);
    fPage.say(R"({"event":"key","key":"a"})");
    fPage.say("{no event");
    fPage.comeBack();
    fPage.announce();
    auto channels = fWindow->channels();
    channels.events = "/services/ErrorLoggingService/JSErrors";
    {
        Page reporter(channels);
        reporter.say("oh \"no\"");
        reporter.say("\xff");
    }
    kirohost::waitForDelivery();
    const auto all = recorded();
    EXPECT_THAT(of(Topic::kControls, all), ElementsAre(R"({"event":"key","key":"a"})"));
    EXPECT_THAT(of(Topic::kErrors, all),
                ElementsAre(R"({"error":"oh \"no\""})", R"({"error":"\\xff"})"));
    EXPECT_THAT(of(Topic::kConnections, all),
                ElementsAre(testing::_, R"({"event":"return"})", R"({"event":"new view"})"));
}

TEST_F(RecordingTest, EndsByItselfWithOneLineOfTheLog) {
    fWindow->record(fFile);
    EXPECT_THROW(fWindow->record("/no/such/folder/file"), std::system_error);
    EXPECT_EQ(fWindow->recording().phase, Phase::kOff);
    EXPECT_EQ(fWindow->recording().bytes, 0U);
    std::vector<std::string> lines;
    const auto log = kirohost::observeLog([&](const kirohost::LogRecord& record) {
        if (record.logger == "recording") lines.push_back(record.text);
    });
    auto options = quiet();
    options.recording = fFile;
    options.recordingQueue = 3000;
    auto window = detail::Surroundings::open(options, {});
    Page page(window->channels());
    page.announce();
    auto& line = window->figure().axes().line();
    for (int i = 0; i < 2; ++i) {
        line.append(std::vector<double>(2000, i));
        EXPECT_EQ(window->draw().outcome, Outcome::kPainted);  // whatever becomes of the recording
    }
    const auto state = window->recording();
    EXPECT_EQ(state.phase, Phase::kEnded);
    EXPECT_EQ(state.cause, "its queue of 3000 bytes is full");
    window.reset();
    EXPECT_THAT(lines, ElementsAre("the recording " + fFile + " has ended: " + state.cause));
    const kirorecording::FileSource source(fFile);
    EXPECT_FALSE(kirorecording::Reader(source).damage());
}

}  // namespace
}  // namespace figures_test
