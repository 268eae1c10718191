#include "Outbox.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "Frames.hpp"
#include "PageMessages.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

using namespace kirogateway;
using gatewaytest::Frame;
using gatewaytest::readBatch;
using gatewaytest::Record;
using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;

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

    Outbox make(std::size_t lanes = 1, bool keeps = true) { return {fLimits, lanes, keeps}; }

    /// A transfer that one page joined, and what becomes of its block.
    std::pair<std::shared_ptr<Transfer>, Future> makeTransfer(std::size_t size) {
        auto* bytes = static_cast<char*>(std::malloc(size));
        std::memset(bytes, static_cast<int>('a' + size % 26), size);
        auto future = fStream->send(DataBuffer(bytes, size, size));
        auto transfer = std::make_shared<Transfer>(*std::move(fDelivery), fCounters);
        transfer->join();
        transfer->close(true);
        return {std::move(transfer), std::move(future)};
    }
    Future addBlock(Outbox& outbox, std::size_t size, std::size_t lane = 0) {
        auto [transfer, future] = makeTransfer(size);
        EXPECT_TRUE(outbox.addBlock(lane, "/bin", std::move(transfer), fNow));
        return std::move(future);
    }
    void addText(Outbox& outbox, std::string_view text, std::string_view channel = "/c",
                 std::size_t lane = 0) const {
        EXPECT_TRUE(outbox.addText(lane, channel, text, false, fNow));
    }
    /// Writes all that can be written, `step` bytes at a time.
    std::vector<Frame> write(Outbox& outbox, std::size_t step = 1000000) const {
        std::string bytes;
        for (;;) {
            const auto pending = outbox.pending(fNow);
            auto all = std::string(pending[0]) + std::string(pending[1]);
            if (all.empty()) break;
            all.resize(std::min(all.size(), step));
            bytes += all;
            outbox.written(all.size());
        }
        auto frames = gatewaytest::takeFrames(bytes);
        EXPECT_TRUE(bytes.empty()) << "part of a frame";
        return frames;
    }
    static void answer(Outbox& outbox, std::uint64_t transfer, bool ok) {
        LeavingList leaving;
        outbox.answer(transfer, ok, leaving);
        end(leaving);
    }
    static void end(LeavingList& leaving) {
        for (auto& [transfer, hasBlock] : leaving) transfer->leave(hasBlock);
        leaving.clear();
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
    std::shared_ptr<relay::binary::experimental::BinaryStream> fStream =
        relay::binary::experimental::createBinaryStream("/bin", {{"returnOnFail", "true"}});
    std::shared_ptr<Counters> fCounters = std::make_shared<Counters>();
    Outbox::TimePoint fNow{std::chrono::hours(1)};
};

}  // namespace

TEST_F(OutboxTest, BatchesTextsAndNamesEachChannelOnce) {
    auto outbox = make();
    addText(outbox, "1", "/a");
    addText(outbox, "2", "/a");
    EXPECT_TRUE(outbox.addText(0, "/b", "/w==", true, fNow));
    addText(outbox, "", "/b");
    addText(outbox, "5", "");  // cannot be named behind another
    addText(outbox, "6", "");
    const auto frames = write(outbox, 3);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].payload,
              "1\x1e/a\x1f"
              "1\x1e\x1f"
              "2\x1e/b\x1f\x1f/w==\x1e\x1f");
    const std::vector<Record> expected{{5, "", "5", false}, {6, "", "6", false}};
    EXPECT_EQ(readBatch(frames[1].payload), expected);
    EXPECT_EQ(outbox.next(), 7U);
}

TEST_F(OutboxTest, MakesFramesOfEverySize) {
    auto outbox = make();
    for (const std::size_t size : {0U, 100U, 121U, 122U, 123U, 60000U, 65530U, 66000U}) {
        addText(outbox, std::string(size, 'x'));
        const auto frames = write(outbox, 777);
        ASSERT_EQ(frames.size(), 1U) << size;
        EXPECT_EQ(readBatch(frames[0].payload)[0].text.size(), size);
        outbox.acknowledge(outbox.next() - 1);
    }
    EXPECT_EQ(outbox.bytes(), 0U);
}

TEST_F(OutboxTest, KeepsACommandBehindTheBlocksBeforeIt) {
    auto outbox = make();
    addText(outbox, "a");
    std::vector<Future> futures;
    for (int i = 0; i < 3; ++i) futures.push_back(addBlock(outbox, 50));
    addText(outbox, "b");
    outbox.greet("{}", 0);
    // Two blocks under way are enough: the third and what is behind it wait for an answer.
    EXPECT_EQ(textsOf(write(outbox)), (Texts{"{}", kChannel, "1 a", "block 2", "block 3"}));
    answer(outbox, 2, true);
    EXPECT_EQ(textsOf(write(outbox)), (Texts{"block 4", "5 b"}));
    EXPECT_TRUE(futures[1].get().delivered);
    answer(outbox, 1, false);
    const auto refused = futures[0].get();
    EXPECT_FALSE(refused.delivered);
    EXPECT_EQ(refused.buffer.size(), 50U);
    answer(outbox, 1, true);  // over
    answer(outbox, 77, true);
    answer(outbox, std::uint64_t{3} << 32U, true);
    EXPECT_FALSE(futures[2].isReady());
    EXPECT_EQ(outbox.blocksUnderWay(), 1U);
}

TEST_F(OutboxTest, CutsALargeBlockAndLetsOtherLanesBetween) {
    auto outbox = make(2);
    auto future = addBlock(outbox, 250);
    addText(outbox, "behind");
    for (const char* text : {"x", "y"}) addText(outbox, text, "/other", 1);
    const auto frames = write(outbox, 7);
    EXPECT_EQ(textsOf(frames),
              (Texts{kChannel, "piece", "1 x", "2 y", "piece", "block 3", "4 behind"}));
    std::string whole;
    for (const auto& frame : frames) {
        if (frame.opcode != 2) continue;
        const auto header = *wire::BlockHeader::read(frame.payload);
        EXPECT_EQ(header.transfer, 1U);
        if (!header.isLast) {
            EXPECT_EQ(header.number, 250U);
        }
        whole += frame.payload.substr(wire::BlockHeader::kSize);
    }
    EXPECT_EQ(whole, std::string(250, static_cast<char>('a' + 250 % 26)));
    answer(outbox, 1, true);
    EXPECT_TRUE(future.get().delivered);
}

TEST_F(OutboxTest, WritesAgainWhatAReturnedPageMissed) {
    auto outbox = make();
    addText(outbox, "a");
    auto first = addBlock(outbox, 40);
    auto second = addBlock(outbox, 150);
    addText(outbox, "b");
    static_cast<void>(write(outbox));
    outbox.acknowledge(1);
    outbox.acknowledge(0);  // never back
    addText(outbox, "c");
    // The connection breaks in the middle of a frame.
    static_cast<void>(outbox.pending(fNow));
    outbox.written(3);
    EXPECT_FALSE(outbox.detach().empty());
    EXPECT_FALSE(outbox.canResume(0));
    EXPECT_FALSE(outbox.canResume(5));
    ASSERT_TRUE(outbox.canResume(2));
    LeavingList leaving;
    outbox.resume(2, leaving);
    end(leaving);
    EXPECT_TRUE(first.get().delivered);  // its answer was lost
    addText(outbox, "d");
    EXPECT_EQ(textsOf(write(outbox)), (Texts{"piece", "block 3", "4 b", "5 c", "6 d"}));
    answer(outbox, 2, true);
    EXPECT_TRUE(second.get().delivered);
}

TEST_F(OutboxTest, WithdrawsABlockThatIsGivenBackMeanwhile) {
    auto outbox = make();
    auto future = addBlock(outbox, 40);
    addText(outbox, "behind");
    static_cast<void>(write(outbox));
    auto waiting = addBlock(outbox, 40);
    EXPECT_EQ(outbox.detach(), "");
    LeavingList leaving;
    outbox.dropBlocks(leaving);
    end(leaving);
    EXPECT_EQ(future.get().buffer.size(), 40U);
    EXPECT_FALSE(waiting.get().delivered);
    outbox.resume(0, leaving);
    EXPECT_EQ(textsOf(write(outbox)),
              (Texts{R"({"t":"withdrawn","transfer":1,"number":1})", "2 behind"}));
    outbox.acknowledge(2);
    EXPECT_EQ(outbox.bytes(), 0U);
    EXPECT_EQ(outbox.bytesUnderWay(), 0U);
}

TEST_F(OutboxTest, DropsLateBlocksButNotInTheMiddleOfAFrame) {
    auto outbox = make();
    auto sent = addBlock(outbox, 40);
    static_cast<void>(write(outbox));
    auto pieces = addBlock(outbox, 150);
    static_cast<void>(outbox.pending(fNow));
    outbox.written(outbox.pending(fNow)[0].size() + 100);  // the first piece
    fNow += std::chrono::seconds(1);
    auto young = addBlock(outbox, 40);
    LeavingList leaving;
    EXPECT_TRUE(outbox.dropBlocksBefore(fNow, leaving));
    end(leaving);
    EXPECT_FALSE(sent.get().delivered);
    EXPECT_FALSE(pieces.get().delivered);
    EXPECT_EQ(textsOf(write(outbox, 10)), (Texts{R"({"t":"withdrawn","transfer":2})", "block 2"}));

    auto cut = addBlock(outbox, 50);
    static_cast<void>(outbox.pending(fNow));
    outbox.written(20);
    EXPECT_FALSE(outbox.dropBlocksBefore(fNow + std::chrono::seconds(1), leaving));
    end(leaving);
    EXPECT_FALSE(young.get().delivered);
    EXPECT_FALSE(cut.isReady());
    static_cast<void>(outbox.detach());
    outbox.dropBlocks(leaving);
    end(leaving);
    EXPECT_FALSE(cut.get().delivered);
}

TEST_F(OutboxTest, RefusesMoreThanItMayHold) {
    auto outbox = make(1, false);
    std::size_t count = 0;
    while (outbox.addText(0, "/c", std::string(500, 'x'), false, fNow)) ++count;
    EXPECT_GT(count, 150U);
    EXPECT_LE(outbox.bytes(), fLimits.queueSize);
    auto [transfer, future] = makeTransfer(1000);
    EXPECT_FALSE(outbox.addBlock(0, "/bin", transfer, fNow));
    transfer->leave(false);
    fNow += std::chrono::seconds(3);
    EXPECT_EQ(fNow - outbox.waitingSince(fNow), std::chrono::seconds(3));
    static_cast<void>(write(outbox));
    EXPECT_EQ(outbox.bytes(), 0U);  // nothing is kept for a page that does not return
    EXPECT_EQ(outbox.waitingSince(fNow), fNow);
}
