// The halves of a numbered stream and what waits for answers, each by itself.
#include <gmock/gmock.h>

#include "BlockWaits.hpp"
#include "DownStream.hpp"
#include "FailingNew.hpp"
#include "Inbox.hpp"
#include "NumberedReceiver.hpp"
#include "SendWindow.hpp"

namespace link_test {
namespace {

using namespace kirolink;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using Range = frame::Ask::Range;

TEST(Receivers, AskForWhatIsMissingLessAndLessOften) {
    NumberedReceiver receiver(5);
    NumberedReceiver::TimePoint now{1h};
    const auto asks = [&] { return receiver.ask(now).has_value(); };
    EXPECT_TRUE(receiver.arrived(5, "a"));
    EXPECT_FALSE(receiver.arrived(5, "a"));
    EXPECT_FALSE(asks());
    EXPECT_FALSE(receiver.arrived(8, "d"));
    EXPECT_FALSE(receiver.arrived(11, "g"));
    EXPECT_THAT(receiver.ask(now)->ranges, ElementsAre(Range{6, 7}, Range{9, 10}));
    for (const auto patience : {100ms, 200ms, 400ms, 800ms, 1600ms, 2000ms, 2000ms}) {
        now += patience - 1ms;
        EXPECT_FALSE(asks()) << patience.count();
        now += 1ms;
        EXPECT_TRUE(asks()) << patience.count();
    }
    receiver.resent();  // of which nothing has come
    EXPECT_FALSE(asks());
    EXPECT_TRUE(receiver.arrived(6, "b"));
    EXPECT_FALSE(asks());
    receiver.resent();
    EXPECT_THAT(receiver.ask(now)->ranges, ElementsAre(Range{7, 7}, Range{9, 10}));
    receiver.setRoundTrip(300ms);
    now += 100ms;
    EXPECT_TRUE(asks());
    now += 599ms;
    EXPECT_FALSE(asks());  // an answer takes so long
    EXPECT_TRUE(receiver.arrived(7, "c"));
    EXPECT_EQ(receiver.takeHeld(), "d");
    EXPECT_EQ(receiver.takeHeld(), std::nullopt);
    EXPECT_EQ(receiver.next(), 9U);
    EXPECT_EQ(receiver.gaps(), 1U);
}

TEST(Receivers, KeepSoMuchOfWhatIsTooEarly) {
    NumberedReceiver receiver;
    const std::string mebibyte(std::size_t{1} << 20U, 'x');
    const auto fill = [&](std::uint64_t first) {
        for (auto number = first; number < first + 40; ++number) {
            EXPECT_FALSE(receiver.arrived(number, mebibyte));
        }
        EXPECT_TRUE(receiver.arrived(first - 1, "the one that was missing"));
        std::size_t held = 0;
        while (receiver.takeHeld()) ++held;
        return held;
    };
    EXPECT_EQ(fill(2), 15U);
    for (std::uint64_t number = 17; number < 42; ++number) {
        EXPECT_TRUE(receiver.arrived(number, mebibyte));
    }
    EXPECT_EQ(fill(43), 15U);  // what was taken makes room again
}

TEST(DownStreams, LoseNothingWhenThereIsNoMemoryToSend) {
    struct Taken final : Cluster {
        bool publish(const std::string&, Bytes bytes) noexcept override {
            frames += *bytes;
            frames += '|';
            return true;
        }
        std::unique_ptr<Subscription> subscribe(const std::string&, Listener) override {
            return nullptr;
        }
        bool isConnected() const noexcept override { return true; }
        std::string frames = std::string(1000, ' ');  // room
    };
    std::string wanted;
    const auto failures = support::failEachNew([&](std::size_t n) {
        DownStream stream(1, 1000, {"/c/*"}, [] {});
        stream.join(1);
        stream.text("/c/a", "one");
        stream.text("/c/b", "two");
        Taken taken;
        taken.frames.clear();
        const DownStream::TimePoint now{1h};
        const auto failed = support::failingNew(n, [&] { stream.send(taken, "s", now); }).failed;
        stream.send(taken, "s", now);
        if (wanted.empty()) {
            EXPECT_TRUE(failed);
            wanted = taken.frames;
        }
        EXPECT_THAT(taken.frames, AllOf(HasSubstr("one"), HasSubstr("two"), Eq(wanted))) << n;
        EXPECT_THAT(stream.takeLost(), testing::IsEmpty()) << n;
        return failed;
    });
    EXPECT_GT(failures, 1U);
}

struct Wait final : BlockWait {
    explicit Wait(int& theCount) : count(theCount) {}
    void finished(bool isDelivered) noexcept override { count += isDelivered ? 1 : 100; }
    int& count;
};

TEST(BlockWaits, HearThoseOnlyWhoWereThere) {
    std::vector<BlockEnd> ends;
    int count = 0;
    BlockWaits waits([&](BlockEnd end) { ends.push_back(end); });
    waits.add(7, std::make_unique<Wait>(count), {1, 2}, {});
    waits.answered(3, 7, BlockOutcome::kRefused);
    waits.answered(1, 8, BlockOutcome::kRefused);
    waits.answered(1, 7, BlockOutcome::kDelivered);
    waits.answered(1, 7, BlockOutcome::kRefused);
    EXPECT_THAT(ends, testing::IsEmpty());
    waits.answered(2, 7, BlockOutcome::kNobody);
    waits.answered(2, 7, BlockOutcome::kRefused);
    EXPECT_THAT(ends, ElementsAre(BlockEnd::kDelivered));
    EXPECT_EQ(count, 1);
    std::unique_ptr<BlockWait> wait = std::make_unique<Wait>(count);
    const auto add = [&] { waits.add(9, std::move(wait), {}, {}); };
    EXPECT_TRUE(support::failingNew(1, add).failed);
    ASSERT_NE(wait, nullptr) << "somebody has to end it";
    add();
    EXPECT_EQ(count, 101);
}

TEST(Inboxes, LeaveRoomForTheOthers) {
    Inbox inbox;
    const std::string mebibyte(std::size_t{1} << 20U, 'x');
    for (int i = 0; i < 100; ++i) inbox.put("a", mebibyte, 0us);
    EXPECT_EQ(inbox.lost(), 85U);
    inbox.put("b", "", 0us);
    EXPECT_EQ(inbox.lost(), 85U);
    EXPECT_EQ(inbox.take()->gateway, "a");
    inbox.put("a", mebibyte, 0us);  // where one was
    EXPECT_EQ(inbox.lost(), 85U);
    int count = 0;
    while (inbox.take()) ++count;
    EXPECT_EQ(count, 16);
}

TEST(SendWindows, FollowTheLine) {
    SendWindow window;
    const SendWindow::TimePoint now{1h};
    const std::size_t piece = 512UL * 1024;
    EXPECT_TRUE(window.mayGo(0, 2 * piece));  // something has to go
    EXPECT_FALSE(window.mayGo(1, piece));
    for (int i = 0; i < 200; ++i) window.acknowledged(piece, 100ms, 0, now);
    EXPECT_TRUE(window.mayGo(SendWindow::kMost - piece, piece));
    EXPECT_FALSE(window.mayGo(SendWindow::kMost, 1));
    window.acknowledged(piece, 700ms, 3 * piece, now);
    EXPECT_TRUE(window.mayGo(SendWindow::kMost - piece, piece));
    // To the half of what has turned out to be too much.
    window.acknowledged(piece, 1100ms, 6 * piece, now);
    EXPECT_TRUE(window.mayGo(2 * piece, piece));
    EXPECT_FALSE(window.mayGo(2 * piece, piece + 1));
    window.acknowledged(piece, 1100ms, 6 * piece, now + 900ms);
    EXPECT_TRUE(window.mayGo(2 * piece, piece));  // that has not shown yet
    window.acknowledged(piece, 1100ms, piece, now + 1100ms);
    EXPECT_FALSE(window.mayGo(2 * piece, 1));
}

}  // namespace
}  // namespace link_test
