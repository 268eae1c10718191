#include "Outbox.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Buffers.hpp"
#include "Frames.hpp"
#include "PageMessages.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

using namespace kirogateway;
using gatewaytest::Frame;
using gatewaytest::readBatch;
using gatewaytest::Record;
using namespace relay::binary::experimental;

namespace {

/// An outbox, a clock, blocks of a real stream, and a page that reads what is pending.
class OutboxTest : public testing::Test {
  protected:
    using Future = relay::Future<SendResult>;

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
    Future addBlock(std::size_t size) {
        auto future = fStream->send(support::bufferOf(std::string(size, 'b')));
        auto transfer = std::make_shared<Transfer>(*std::move(fDelivery), fCounters);
        transfer->join();
        transfer->close(true);
        EXPECT_TRUE(fOutbox.addBlock(0, "/bin", std::move(transfer), fNow));
        return future;
    }
    void addText(std::string_view text, std::string_view channel = "/c", std::size_t lane = 0) {
        EXPECT_TRUE(fOutbox.addText(lane, channel, text, false, fNow));
    }
    /// Writes all that can be written, `step` bytes at a time.
    std::vector<Frame> write(std::size_t step = 1000000) {
        std::string bytes;
        for (;;) {
            const auto pending = fOutbox.pending(fNow);
            auto all = std::string(pending[0]) + std::string(pending[1]);
            if (all.empty()) break;
            all.resize(std::min(all.size(), step));
            bytes += all;
            fOutbox.written(all.size());
        }
        auto frames = gatewaytest::takeFrames(bytes);
        EXPECT_TRUE(bytes.empty()) << "part of a frame";
        return frames;
    }
    void answer(std::uint64_t transfer, bool ok) {
        fOutbox.answer(transfer, ok, fLeaving);
        end();
    }
    /// What the outbox has let go of is over.
    void end() {
        for (auto& [transfer, hasBlock] : fLeaving) transfer->leave(hasBlock);
        fLeaving.clear();
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
    Outbox fOutbox{fLimits, 2, true};
    LeavingList fLeaving;
    Outbox::TimePoint fNow{std::chrono::hours(1)};
};

}  // namespace

TEST_F(OutboxTest, BatchesTextsAndNamesEachChannelOnce) {
    addText("1", "/a");
    addText("2", "/a");
    EXPECT_TRUE(fOutbox.addText(0, "/b", "/w==", true, fNow));
    addText("", "/b");
    addText("5", "");  // cannot be named behind another
    addText("6", "");
    const auto frames = write(3);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].payload,
              "1\x1e/a\x1f"
              "1\x1e\x1f"
              "2\x1e/b\x1f\x1f/w==\x1e\x1f");
    const std::vector<Record> expected{{5, "", "5", false}, {6, "", "6", false}};
    EXPECT_EQ(readBatch(frames[1].payload), expected);
    for (const std::size_t size : {121U, 122U, 123U, 65530U, 66000U}) {
        addText(std::string(size, 'x'));
        EXPECT_EQ(readBatch(write(777).at(0).payload)[0].text.size(), size);
        fOutbox.acknowledge(fOutbox.next() - 1);
    }
    EXPECT_EQ(fOutbox.bytes(), 0U);
}

TEST_F(OutboxTest, KeepsACommandBehindTheBlocksBeforeIt) {
    addText("a");
    std::vector<Future> futures;
    for (int i = 0; i < 3; ++i) futures.push_back(addBlock(50));
    addText("b");
    fOutbox.greet("{}", 0);
    // Two blocks under way are enough: the third and what is behind it wait for an answer.
    EXPECT_EQ(textsOf(write()), (Texts{"{}", kChannel, "1 a", "block 2", "block 3"}));
    answer(2, true);
    EXPECT_EQ(textsOf(write()), (Texts{"block 4", "5 b"}));
    EXPECT_TRUE(futures[1].get().delivered);
    answer(1, false);
    const auto refused = futures[0].get();
    EXPECT_FALSE(refused.delivered);
    EXPECT_EQ(refused.buffer.size(), 50U);
    for (const auto known : {1UL, 77UL, 3UL << 32U}) answer(known, true);  // over, or never was
    EXPECT_FALSE(futures[2].isReady());
}

TEST_F(OutboxTest, CutsALargeBlockAndLetsOtherLanesBetween) {
    auto future = addBlock(250);
    addText("behind");
    for (const char* text : {"x", "y"}) addText(text, "/other", 1);
    const auto frames = write(7);
    EXPECT_EQ(textsOf(frames),
              (Texts{kChannel, "piece", "1 x", "2 y", "piece", "block 3", "4 behind"}));
    std::string whole;
    for (const auto& frame : frames) {
        if (frame.opcode != 2) continue;
        const auto header = *wire::BlockHeader::read(frame.payload);
        EXPECT_EQ(header.number, header.isLast ? 3U : 250U);
        whole += frame.payload.substr(wire::BlockHeader::kSize);
    }
    EXPECT_EQ(whole, std::string(250, 'b'));
    answer(1, true);
    EXPECT_TRUE(future.get().delivered);
}

TEST_F(OutboxTest, WritesAgainWhatAReturnedPageMissed) {
    addText("a");
    auto first = addBlock(40);
    auto second = addBlock(150);
    addText("b");
    static_cast<void>(write());
    fOutbox.acknowledge(1);
    fOutbox.acknowledge(0);  // never back
    addText("c");
    // The connection breaks in the middle of a frame.
    static_cast<void>(fOutbox.pending(fNow));
    fOutbox.written(3);
    EXPECT_FALSE(fOutbox.detach().empty());
    EXPECT_FALSE(fOutbox.canResume(0) || fOutbox.canResume(5));
    ASSERT_TRUE(fOutbox.canResume(2));
    fOutbox.resume(2, {}, fLeaving);
    end();
    EXPECT_TRUE(first.get().delivered);  // its answer was lost
    addText("d");
    EXPECT_EQ(textsOf(write()), (Texts{"piece", "block 3", "4 b", "5 c", "6 d"}));
    answer(2, true);
    EXPECT_TRUE(second.get().delivered);
}

TEST_F(OutboxTest, DropsLateBlocksButNotInTheMiddleOfAFrame) {
    auto sent = addBlock(40);
    static_cast<void>(write());
    auto pieces = addBlock(150);
    static_cast<void>(fOutbox.pending(fNow));
    fOutbox.written(fOutbox.pending(fNow)[0].size() + 100);  // the first piece
    fNow += std::chrono::seconds(1);
    auto young = addBlock(40);
    EXPECT_TRUE(fOutbox.dropBlocksBefore(fNow, fLeaving));
    end();
    EXPECT_FALSE(sent.get().delivered || pieces.get().delivered);
    EXPECT_EQ(textsOf(write(10)), (Texts{R"({"t":"withdrawn","transfer":2})", "block 2"}));

    auto cut = addBlock(50);
    static_cast<void>(fOutbox.pending(fNow));
    fOutbox.written(20);
    EXPECT_FALSE(fOutbox.dropBlocksBefore(fNow + std::chrono::seconds(1), fLeaving));
    end();
    EXPECT_FALSE(young.get().delivered);
    EXPECT_FALSE(cut.isReady());
    static_cast<void>(fOutbox.detach());
    fOutbox.dropBlocks(fLeaving);
    end();
    EXPECT_FALSE(cut.get().delivered);
}

TEST_F(OutboxTest, RefusesMoreThanItMayHoldAndSaysForHowLongItHasWaited) {
    std::size_t count = 0;
    while (fOutbox.addText(0, "/c", std::string(500, 'x'), false, fNow)) ++count;
    EXPECT_GT(count, 150U);
    EXPECT_LE(fOutbox.bytes(), fLimits.queueSize);
    fNow += std::chrono::seconds(3);
    EXPECT_EQ(fNow - fOutbox.waitingSince(fNow), std::chrono::seconds(3));
    static_cast<void>(write());
    EXPECT_EQ(fOutbox.waitingSince(fNow), fNow);
}
