#include "Outbox.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Backlog.hpp"
#include "Buffers.hpp"
#include "FailingNew.hpp"
#include "Frames.hpp"
#include "PageMessages.hpp"
#include "ReadPace.hpp"
#include "WebSocketFrame.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

using namespace kirogateway;
using gatewaytest::Frame;
using gatewaytest::readBatch;
using namespace relay::binary::experimental;

namespace {

/// An outbox, a clock, blocks of a real stream, and a page that reads what is pending.
class OutboxTest : public testing::Test {
  protected:
    using Future = relay::Future<SendResult>;
    using Added = Outbox::Added;

    static Limits smallLimits() {
        Limits limits;
        limits.queueSize = 100000;
        limits.blocksUnderWay = 2;
        limits.bytesUnderWay = 1000;
        limits.pieceSize = 100;
        limits.batchSize = 1000;
        return limits;
    }

    /// Adds a block that one page has joined; answers what becomes of it.
    Future addBlock(std::size_t size, std::size_t lane = 0, Added expected = Added::kYes,
                    std::string_view channel = "/bin") {
        auto future = fStream->send(support::bufferOf(std::string(size, 'b')));
        const auto transfer = std::make_shared<HostTransfer>(*std::move(fDelivery), fCounters);
        transfer->join();
        transfer->close(Transfer::Outcome::kDelivered);
        EXPECT_EQ(fOutbox->addBlock(lane, channel, transfer, fNow), expected);
        return future;
    }
    Added tryText(std::string_view text, std::string_view channel = "/c", std::size_t lane = 0) {
        return fOutbox->addText({channel, text, false, lane, nullptr});
    }
    void addText(std::string_view text, std::string_view channel = "/c", std::size_t lane = 0) {
        EXPECT_EQ(tryText(text, channel, lane), Added::kYes);
    }
    Added addShared(std::size_t size) {
        const auto shared = std::make_shared<SharedText>();
        shared->text = std::make_shared<const std::string>(size, 's');
        return fOutbox->addText({"/shared", *shared->text, false, 0, shared});
    }
    /// Writes all that can be written, `step` bytes at a time.
    std::vector<Frame> write(std::size_t step = 1000000) {
        std::string bytes;
        for (;;) {
            std::string all;
            for (const auto stretch : fOutbox->pending()) all += stretch;
            if (all.empty()) break;
            all.resize(std::min(all.size(), step));
            bytes += all;
            fOutbox->written(all.size());
        }
        auto frames = gatewaytest::takeFrames(bytes);
        EXPECT_TRUE(bytes.empty()) << "part of a frame";
        return frames;
    }
    void writePart(std::size_t size) {
        static_cast<void>(fOutbox->pending());
        fOutbox->written(size);
    }
    void writeFrame() {
        std::size_t size = 0;
        for (const auto stretch : fOutbox->pending()) size += stretch.size();
        fOutbox->written(size);
    }
    void answer(std::uint64_t transfer, bool ok) {
        fOutbox->answer(transfer, ok, fLeft);
        leaveAll(fLeft);
    }
    static std::vector<std::string> textsOf(const std::vector<Frame>& frames) {
        std::vector<std::string> texts;
        for (const auto& frame : frames) {
            if (frame.opcode == 2) {
                const auto header = *wire::BlockHeader::read(frame.payload);
                texts.push_back(header.isLast ? "block " + std::to_string(header.number) : "piece");
            } else if (frame.payload.starts_with('{')) {
                texts.push_back(frame.payload);
            } else {
                for (const auto& record : readBatch(frame.payload)) {
                    texts.push_back(std::to_string(record.number) + " " + record.text);
                }
            }
        }
        return texts;
    }

    using Texts = std::vector<std::string>;
    const std::string kChannel = R"({"t":"channel","number":1,"name":"/bin"})";

    const Limits fLimits = smallLimits();
    std::optional<Delivery> fDelivery;
    ClientEnd fEnd{"/bin", [this](Delivery delivery) { fDelivery = std::move(delivery); }};
    std::shared_ptr<BinaryStream> fStream = createBinaryStream("/bin", {{"returnOnFail", "true"}});
    std::shared_ptr<Counters> fCounters = std::make_shared<Counters>();
    const std::shared_ptr<Budget> fMemory = std::make_shared<Budget>(200000);
    const std::shared_ptr<Budget> fLost = std::make_shared<Budget>(50000);
    std::optional<Outbox> fOutbox{std::in_place, fLimits, 2U, true, fMemory};
    PageBlocks fLeft;
    Outbox::TimePoint fNow{std::chrono::hours(1)};
};

}  // namespace

TEST_F(OutboxTest, BatchesTextsAndNamesEachChannelOnce) {
    addText("1", "/a");
    addText("2", "/a");
    EXPECT_EQ(fOutbox->addText({"/b", "/w==", true, 0, nullptr}), Added::kYes);
    addText("", "/b");
    addText("5", "");  // cannot be named behind another
    addText("6", "");
    const auto frames = write(3);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].payload,
              "1\x1e/a\x1f"
              "1\x1e\x1f"
              "2\x1e/b\x1f\x1f/w==\x1e\x1f");
    for (int i = 0; i < 1000; ++i) addText("0123456789");
    for (const auto& frame : write()) EXPECT_LT(frame.payload.size(), 1020U);
    EXPECT_EQ(textsOf({frames[1]}), (Texts{"5 5", "6 6"}));
    for (const std::size_t size : {121U, 122U, 123U, 65530U, 66000U}) {
        addText(std::string(size, 'x'));
        EXPECT_EQ(readBatch(write(777).at(0).payload)[0].text.size(), size);
        fOutbox->acknowledge(fOutbox->next() - 1);
    }
    EXPECT_EQ(fOutbox->bytes() + fMemory->used(), 0U);
}

TEST_F(OutboxTest, CutsALargeBlockAndLetsOtherLanesBetween) {
    auto future = addBlock(250);
    addText("behind");
    for (const char* text : {"x", "y"}) addText(text, "/other", 1);
    EXPECT_EQ(textsOf(write(7)),
              (Texts{kChannel, "piece", "1 x", "2 y", "piece", "block 3", "4 behind"}));
    answer(1, true);
    EXPECT_TRUE(future.get().delivered);
}

TEST_F(OutboxTest, LetsABlockThatWaitsForRoomHaveItsTurn) {
    auto first = addBlock(600);
    static_cast<void>(write());
    auto large = addBlock(401);
    EXPECT_TRUE(write().empty()) << "1000 bytes may be under way";
    auto small = addBlock(50, 1);
    EXPECT_TRUE(write().empty()) << "it would overtake the large one for ever";
    answer(1, true);
    EXPECT_EQ(textsOf(write()), (Texts{"piece", "block 2", "piece", "piece", "piece", "block 3"}));
    for (const unsigned transfer : {2U, 3U}) answer(transfer, true);
    EXPECT_EQ(fOutbox->bytesUnderWay(), 0U);

    addBlock(600);
    static_cast<void>(write());
    addBlock(500);
    EXPECT_TRUE(write().empty());
    fNow += std::chrono::seconds(1);
    addBlock(50, 1);
    fOutbox->dropBlocksBefore(fNow, fLeft);
    leaveAll(fLeft);
    EXPECT_EQ(textsOf(write()), (Texts{"block 5"})) << "the one whose turn it was is no more";
}

TEST_F(OutboxTest, TrustsNoPageAboutWhatItHas) {
    addText("a");
    auto block = addBlock(40);
    addText("b");
    static_cast<void>(write());
    fOutbox->acknowledge(1);
    fOutbox->acknowledge(0);
    addText("c");
    writePart(3);
    fOutbox->acknowledge(4);  // what is being written, and what was never sent
    fOutbox->acknowledge(99);
    for (const auto unknown : {77UL, 1UL << 32U}) answer(unknown, true);
    EXPECT_FALSE(block.isReady());
    fOutbox->detach();
    EXPECT_FALSE(fOutbox->canResume(0) || fOutbox->canResume(4));
    ASSERT_TRUE(fOutbox->canResume(2));
    fOutbox->resume(2, {}, fLeft);
    leaveAll(fLeft);
    EXPECT_TRUE(block.get().delivered);  // its answer was lost
    fOutbox->begin({makeFrame(Opcode::kText, "{}")}, 1, true);
    EXPECT_EQ(textsOf(write()), (Texts{"{}", "3 b", "4 c"}));
    fOutbox->detach();
    fOutbox->resume(2, {}, fLeft);
    fOutbox->begin({makeFrame(Opcode::kText, "{}")}, 1, true);
    for (int i = 0; i < 2; ++i) writeFrame();
    fOutbox->detach();
    EXPECT_TRUE(fOutbox->canResume(4)) << "it was sent before";
}

TEST_F(OutboxTest, WritesNothingAgainThatAReturningPageHas) {
    const auto comeBack = [this](std::uint64_t last) {
        fOutbox->detach();
        fOutbox->resume(last, {}, fLeft);
        leaveAll(fLeft);
        fOutbox->begin({makeFrame(Opcode::kText, "{}")}, 1, true);
    };
    addText("a");
    static_cast<void>(write());
    auto block = addBlock(40);
    static_cast<void>(write());
    for (const char* text : {"c", "d", "e"}) {
        addText(text);
        static_cast<void>(write());
    }
    comeBack(0);
    fOutbox->acknowledge(2);
    const Texts all{"{}", "1 a", "block 2", "3 c", "4 d", "5 e"};
    EXPECT_EQ(textsOf(write()), all) << "its hello says so";
    comeBack(2);
    EXPECT_TRUE(block.get().delivered);
    comeBack(4);
    EXPECT_EQ(textsOf(write()), (Texts{"{}", "5 e"}));
    comeBack(5);
    EXPECT_EQ(textsOf(write()), (Texts{"{}"}));
    EXPECT_EQ(fOutbox->load().kept, 0U);
}

TEST_F(OutboxTest, NamesNoMoreBlockChannelsThanAnEngineMayMakeUp) {
    for (int i = 0; i < 1024; ++i) {
        addBlock(1, 0, Added::kYes, "/" + std::to_string(i));
        fOutbox->dropBlocks(fLeft);
        leaveAll(fLeft);
        static_cast<void>(write());
    }
    addBlock(1, 0, Added::kNever, "/1024");
    addBlock(1, 0, Added::kYes, "/1023");
}

TEST_F(OutboxTest, DropsLateBlocksButNotInTheMiddleOfAFrame) {
    auto sent = addBlock(40);
    static_cast<void>(write());
    auto pieces = addBlock(150);
    writePart(fOutbox->pending()[0].size() + 100);  // the first piece
    answer(2, true);
    EXPECT_FALSE(pieces.isReady()) << "it cannot have what is being written";
    fNow += std::chrono::seconds(1);
    auto young = addBlock(50);
    fOutbox->dropBlocksBefore(fNow, fLeft);
    leaveAll(fLeft);
    EXPECT_FALSE(sent.get().delivered || pieces.get().delivered);
    EXPECT_EQ(textsOf(write(10)), (Texts{R"({"t":"withdrawn","transfer":2})", "block 2"}));
    auto cut = addBlock(50);
    writePart(20);
    fOutbox->dropBlocksBefore(fNow + std::chrono::seconds(1), fLeft);
    leaveAll(fLeft);
    EXPECT_FALSE(young.get().delivered);
    EXPECT_FALSE(cut.isReady()) << "a part of it is on its way";
}

TEST_F(OutboxTest, CountsEachByteOfItsOwnOnceAndGivesAllBack) {
    EXPECT_EQ(addShared(150000), Added::kYes) << "whoever shares it has counted it";
    EXPECT_LT(fMemory->used(), 1000U);
    EXPECT_GT(fOutbox->bytes(), 150000U);
    while (tryText(std::string(500, 'x')) == Added::kYes) {
    }
    EXPECT_FALSE(fMemory->take(fMemory->limit()));
    EXPECT_EQ(tryText(std::string(500, 'x')), Added::kNoMemory);
    EXPECT_GT(fMemory->used(), 150000U);
    const auto frames = write(999);
    EXPECT_EQ(readBatch(frames.at(0).payload).at(0).text, std::string(150000, 's'));
    EXPECT_EQ(readBatch(frames.at(1).payload).at(0).number, 2U);
    fOutbox->acknowledge(fOutbox->next() - 1);
    EXPECT_EQ(fMemory->used() + fOutbox->bytes(), 0U);

    addText(std::string(60000, 'x'));
    fOutbox->detach();
    fOutbox->countAsLost(fLost);
    EXPECT_TRUE(fLost->isExceeded());
    EXPECT_EQ(tryText("x"), Added::kNoLostRoom);
    fOutbox->begin({makeFrame(Opcode::kText, "{}")}, 0, true);
    static_cast<void>(write());
    fOutbox->acknowledge(fOutbox->next() - 1);
    fOutbox->detach();
    fOutbox->countAsLost(fLost);
    const auto before = fLost->used();
    addBlock(60000, 0, Added::kNoLostRoom);
    EXPECT_EQ(fLost->used(), before) << "nothing of it stays";
    fOutbox.reset();
    EXPECT_EQ(fLost->used() + fMemory->used(), 0U);
}

// A page is judged by these: whatever happens to it, in the end they agree.
TEST_F(OutboxTest, TellsWhatWaitsWhatIsKeptAndWhatWasLetGo) {
    const auto fill = [this] {
        addText("a");
        EXPECT_EQ(addShared(300), Added::kYes);
        fOutbox->addControl("{}");
        addBlock(250);
        addText("b", "/c", 1);
        const auto load = fOutbox->load();
        EXPECT_EQ(load.waiting, fOutbox->bytes());
        EXPECT_EQ(load.kept, 0U);
        EXPECT_GE(load.added - load.released, 552U);
        EXPECT_LT(load.added - load.released, 600U);
    };
    const auto writeAll = [this] {
        static_cast<void>(write(90));
        EXPECT_EQ(fOutbox->load().waiting, 0U);
        EXPECT_EQ(fOutbox->load().kept, fOutbox->bytes());
    };
    const auto drop = [this] {
        fOutbox->dropBlocks(fLeft);
        leaveAll(fLeft);
    };
    const auto answerAll = [&] {
        fOutbox->acknowledge(fOutbox->next() - 1);
        for (std::uint64_t transfer = 1; transfer < 9; ++transfer) answer(transfer, true);
    };
    const auto goOn = [this] {
        fOutbox->detach();
        fOutbox->countAsLost(fLost);
        fOutbox->begin({makeFrame(Opcode::kText, "{}")}, 0, true);
    };
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"all is taken", [&] { writeAll(), answerAll(); }},
        {"written again after a return",
         [&] {
             const auto last = fOutbox->next() - 1;
             writeAll(), goOn(), fOutbox->resume(last, {}, fLeft);
             EXPECT_EQ(fOutbox->load().kept, 0U);
             writeAll(), answerAll();
         }},
        {"lost in the middle of a block",
         [&] {
             for (int frame = 0; frame < 5; ++frame) {
                 std::size_t size = 0;
                 for (const auto part : fOutbox->pending()) size += part.size();
                 fOutbox->written(size);
             }
             writePart(3);
             const auto last = fOutbox->next() - 1;
             goOn(), fOutbox->resume(last, {}, fLeft);
             writeAll(), answerAll();
         }},
        {"the blocks are given up", [&] { writeAll(), drop(), answerAll(); }},
        {"blocks and texts are given up, written",
         [&] { writeAll(), fOutbox->forgetTexts(), drop(), answerAll(); }},
        {"blocks and texts are given up, waiting",
         [&] { fOutbox->forgetTexts(), drop(), writeAll(), answerAll(); }},
        {"texts that were to be written again are given up",
         [&] {
             const auto last = fOutbox->next() - 1;
             writeAll(), goOn(), fOutbox->resume(last, {}, fLeft);
             fOutbox->forgetTexts(), drop();
             for (const auto& text : textsOf(write())) EXPECT_TRUE(text.starts_with('{')) << text;
             answerAll();
         }},
        {"all is given up", [&] { fOutbox->clear(fLeft), leaveAll(fLeft); }},
    };
    for (const auto& [what, happens] : cases) {
        fill();
        happens();
        const auto load = fOutbox->load();
        EXPECT_EQ(load.waiting + load.kept, 0U) << what;
        EXPECT_EQ(load.added, load.released) << what;
        EXPECT_EQ(fOutbox->bytes() + fOutbox->bytesUnderWay() + fLost->used(), 0U) << what;
    }
}

TEST(Pace, TellsASlowPageFromOneThatIsSentMuch) {
    Pace::TimePoint now{std::chrono::hours(1)};
    Pace pace{1000, std::chrono::seconds(10)};
    Pace::Load load;
    const auto pass = [&load](std::size_t sent, std::size_t taken, std::size_t acknowledged) {
        load.added += sent;
        load.taken += taken;
        load.released += acknowledged;
        load.waiting += sent - taken;
        load.kept += taken - acknowledged;
    };
    // What passes is that in each second of a minute; 0 when it is never too slow.
    const auto secondsUntilTooSlow = [&](std::size_t sent, std::size_t taken,
                                         std::size_t acknowledged) {
        for (int second = 1; second <= 60; ++second) {
            now += std::chrono::seconds(1);
            pass(sent, taken, acknowledged);
            if (pace.look(load, now) != nullptr) return second;
        }
        return 0;
    };
    pace.restart(now);
    EXPECT_EQ(secondsUntilTooSlow(0, 0, 0), 0) << "nothing waits";
    pass(100000, 0, 0);
    EXPECT_EQ(secondsUntilTooSlow(0, 1000, 1000), 0) << "one, being taken";
    EXPECT_EQ(secondsUntilTooSlow(1000, 1000, 1000), 0) << "it follows";
    EXPECT_EQ(secondsUntilTooSlow(0, 0, 0), 11);
    pace.restart(now);
    EXPECT_EQ(secondsUntilTooSlow(0, 0, 0), 11) << "counted from the return";
    pace.restart(now);
    EXPECT_EQ(secondsUntilTooSlow(1000, 900, 900), 12);

    load = {};
    pace.restart(now);
    pass(5000, 5000, 0);
    EXPECT_EQ(secondsUntilTooSlow(500, 500, 500), 0);
    const int slow = secondsUntilTooSlow(500, 500, 100);
    EXPECT_TRUE(slow > 0 && slow <= 22) << "it is to acknowledge as well";
}

TEST(ReadPace, KeepsUpWithAPageButNotWithAFlood) {
    using std::chrono::milliseconds;
    constexpr auto kBurst = ReadPace::kBurst;
    ReadPace::TimePoint now{std::chrono::hours(1)};
    constexpr std::size_t kEachMillisecond = 8;
    ReadPace pace(1000 * kEachMillisecond);
    EXPECT_EQ(pace.read(kBurst, now), milliseconds(0));
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(pace.read(kEachMillisecond, now += milliseconds(1)), milliseconds(0));
    }
    EXPECT_EQ(pace.read(3 * kEachMillisecond, now), milliseconds(3));
    EXPECT_EQ(pace.read(kBurst, now += std::chrono::hours(1)), milliseconds(0));
    EXPECT_GT(pace.read(1, now), milliseconds(0)) << "more is not saved up";
}

TEST(Budget, GivesWhatItHasToTheLastByte) {
    Budget budget(10);
    EXPECT_TRUE(budget.take(10) && !budget.isExceeded());
    EXPECT_FALSE(budget.take(1));
    EXPECT_TRUE(budget.makeRoom(0));
    EXPECT_FALSE(budget.makeRoom(1) || budget.makeRoom(11));
    budget.add(1);
    EXPECT_TRUE(budget.isExceeded());
    budget.addEnding(11);
    EXPECT_TRUE(budget.makeRoom(10)) << "it will be given soon";
    budget.removeEnding(11);
    EXPECT_FALSE(budget.makeRoom(1));
}

TEST(Backlog, IsFullByMessagesAsWellAndCountsThemUntilTheyAreLetGo) {
    const auto memory = std::make_shared<Budget>(1000);
    const auto backlog = std::make_shared<Backlog>(100, std::make_shared<Wakeup>());
    std::vector<Backlog::Entry> entries;
    while (!backlog->isFull() && entries.size() < 1000) entries.push_back(backlog->add("", memory));
    EXPECT_EQ(entries.size(), 64U);
    entries.clear();
    std::string text(101, 't');
    const auto add = [&] { entries.push_back(backlog->add(std::move(text), memory)); };
    EXPECT_TRUE(support::failingNew(1, add).failed);
    EXPECT_FALSE(backlog->isFull());
    entries.push_back(backlog->add(std::string(101, 't'), memory));
    EXPECT_TRUE(backlog->isFull());
    EXPECT_EQ(memory->used(), 101U);
    entries.clear();
    EXPECT_FALSE(backlog->isFull());
    EXPECT_EQ(memory->used(), 0U);
}
