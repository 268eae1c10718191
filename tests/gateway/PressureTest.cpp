// Bounds: on each page, and on the sum of all of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "GatewayFixture.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/Logger.hpp"

using gatewaytest::GatewayTest;
using gatewaytest::Peer;
using relay::binary::experimental::createBinaryStream;

namespace {

class PressureTest : public GatewayTest {
  protected:
    /// A page that reads nothing, so that little goes into its socket.
    Peer joinSlow() {
        fAccess.receiveBuffer = 4096;
        auto page = join();
        fAccess.receiveBuffer = 0;
        return page;
    }
    /// Why the view ended, or "returned".
    std::string endedReason(const std::string& view) {
        auto back = comeBack(view, 0, R"(,"resume":false)");
        return hello("kind") == "return" ? "returned" : hello("ended");
    }
};

}  // namespace

TEST_F(PressureTest, KeepsNoMoreLostViewsThanAllowedAndTheYoungestOfThem) {
    fOptions.limits.lostViews = 3;
    fOptions.limits.lostMemory = 300000;
    start();
    auto good = join();
    std::vector<std::string> views;
    const auto lose = [&](std::size_t count) {
        views.clear();
        for (std::size_t i = 0; i < count; ++i) {
            auto page = join();
            views.push_back(hello("view"));
            i % 2 == 0 ? page.cut() : static_cast<void>(page.sendFrame(8, "\x13\x24"));
            while (fGateway->statistics().pages > 1) settle(good);  // until it is lost
        }
    };
    lose(20);
    while (viewCount() > 4) settle(good);  // lost, and then one too many
    EXPECT_EQ(viewCount(), 4U);
    EXPECT_EQ(endedReason(views[0]), "too many views had lost their connections");
    EXPECT_EQ(endedReason(views[19]), "returned");
    const auto oldest = views[17];
    lose(1);  // the third of those that are left
    for (int i = 0; i < 2; ++i) publish("/fig/1", std::string(60000, 'x'));
    EXPECT_EQ(good.readRecords(2).size(), 2U);
    EXPECT_EQ(endedReason(oldest),
              "too slow: more was kept for lost views than they may have together");
    EXPECT_EQ(endedReason(views[0]), "returned");
}

TEST_F(PressureTest, EndsNobodyElseForBlocksThatTheLargestViewStillHolds) {
    fOptions.limits.memory = 8000000;
    start();
    auto good = join(R"(,"resume":false)");  // so that nothing is kept for it
    good.sendText(R"({"t":"unsubscribe","channels":["/bin"]})");
    settle(good);
    const auto stream = createBinaryStream("/fig/2", {{"returnOnFail", "true"}});
    for (const bool isBlock : {false, true}) {  // what there is no room for
        auto holds = join();
        holds.sendText(R"({"t":"unsubscribe","channels":["/fig/*"]})");
        settle(holds);
        const auto view = hello("view");
        auto block = sendBlock(7000000);  // never answered
        const std::string large(1500000, 'x');
        isBlock ? static_cast<void>(stream->send(support::bufferOf(large)))
                : publish("/fig/1", large);
        publish("/fig/1", "small");
        if (isBlock) good.readBinary();
        EXPECT_EQ(good.readRecords(isBlock ? 1 : 2).back().text, "small");
        EXPECT_FALSE(block.get().delivered);
        EXPECT_EQ(endedReason(view),
                  "too slow: the most was held for it when the gateway's memory was used up");
        settle(good);
    }
}

TEST_F(PressureTest, AllGatewaysOfAProcessHoldSoMuchTogether) {
    fOptions.maySubscribe.push_back("/other/*");
    fOptions.blockChannels = {"/none"};
    fOptions.limits.memory = 8000000;
    start();
    auto good = join(R"(,"resume":false,"subscribe":["/fig/*","/other/*"])");
    const auto gateway = std::move(fGateway);
    fOptions.blockChannels = {"/bin"};
    fOptions.limits.memory = 100000000;
    start();  // another one, whose pages hold much
    for (const bool isBlock : {false, true}) {
        auto slow = joinSlow();
        const auto view = hello("view");
        Block block;
        if (isBlock) {
            block = sendBlock(6000000);
        } else {
            publish("/fig/1", std::string(6000000, 'x'));
            EXPECT_LT(held(), 7000000U) << "both send the same bytes";
            EXPECT_EQ(good.readRecords(1).size(), 1U);
            settle(good);
        }
        publish("/other/1", std::string(3000000, 'x'));
        EXPECT_EQ(good.readRecords(1).at(0).text.size(), 3000000U);
        EXPECT_EQ(endedReason(view),
                  "too slow: the most was held for it when the gateway's memory was used up");
        EXPECT_TRUE(!isBlock || !block.get().delivered);
        slow.cut();
        while (held() > 10000) settle(good);
    }
}

TEST_F(PressureTest, AGatewayMayStopWhileAnotherMakesRoomWithItsViews) {
    fOptions.limits.memory = 2000000;
    start();
    auto good = join(R"(,"resume":false,"subscribe":["/fig/2"])");
    const auto gateway = std::move(fGateway);
    fOptions.limits.memory = 100000000;
    std::atomic<bool> isOver{false};
    // So far ahead of the good page's reader, which must not become the one for whom most is held.
    std::counting_semaphore<> ahead(1000);
    std::thread engine([&] {
        while (!isOver) {
            publish("/fig/1", std::string(300000, 'x'));  // is held
            ahead.acquire();
            publish("/fig/2", "needs room");
        }
        publish("/fig/2", "last");
    });
    const auto read = [&] {
        auto records = good.readRecords(1);
        ahead.release(static_cast<std::ptrdiff_t>(records.size()));
        return records;
    };
    for (int i = 0; i < 5; ++i) {
        start();
        std::vector<Peer> pages;
        for (int n = 0; n < 8; ++n) pages.push_back(joinSlow());
        while (fGateway->statistics().disconnected == 0 && !read().empty()) {
        }
        fGateway.reset();
    }
    isOver = true;
    std::string last;
    while (last != "last") {
        const auto records = read();
        if (records.empty()) break;
        last = records.back().text;
    }
    EXPECT_EQ(last, "last");
    ahead.release();
    engine.join();
}

TEST_F(PressureTest, SaysWhatCanNeverBeSent) {
    fOptions.limits.memory = 100000;
    std::vector<std::string> lines;
    const auto observing = kirohost::observeLog(
        [&lines](const kirohost::LogRecord& record) { lines.push_back(record.text); });
    start();
    auto page = join();
    publish("/fig/1", "kept, so that its end would make room");
    EXPECT_FALSE(sendBlock(100001).get().delivered);
    EXPECT_EQ(page.readRecords(1).size(), 1U);
    settle(page);
    publish("/fig/1", std::string(100001, 'x'));
    EXPECT_EQ(page.readClose(), 4003U);
    fGateway.reset();
    for (const char* line :
         {"a block of 100001 bytes can never be sent, the limit is 100000: /bin",
          "a text of 100001 bytes can never be sent, the limit is 100000: /fig/1"}) {
        EXPECT_EQ(std::ranges::count(lines, line), 1) << line;
    }
}

TEST_F(PressureTest, SendsMuchToAPageThatReads) {
    fOptions.limits.queueSize = 1000000;
    start();
    auto page = join();
    std::vector<Block> blocks;
    for (int i = 0; i < 4; ++i) blocks.push_back(sendBlock(25000000));
    publish("/fig/1", std::string(30000000, 'x'));
    for (unsigned i = 1; i <= 4; ++i) {
        for (std::size_t size = 0; size < 25000000;) size += page.readBinary().size() - 16;
        answer(page, i, true);
    }
    EXPECT_EQ(page.readRecords(1).at(0).text.size(), 30000000U);
    for (auto& block : blocks) EXPECT_TRUE(block.get().delivered);
    settle(page);
}

TEST_F(PressureTest, ClosesAPageThatTakesNothing) {
    fOptions.limits.queue = std::chrono::milliseconds(100);
    auto& logger = kiroutils::Logger::instance();
    logger.setHistoryEnabled("DrawnowTimeout", true, 10, false);
    start();
    auto slow = joinSlow();
    const auto view = hello("view");
    auto good = join();
    publish("/fig/1", std::string(8000000, 'x'));
    EXPECT_EQ(good.readRecords(1).size(), 1U);
    while (fGateway->statistics().disconnected == 0) settle(good);
    EXPECT_EQ(endedReason(view), "too slow: it took nothing for too long");
    const auto history = logger.history("DrawnowTimeout");
    EXPECT_NE(history.at(0).find("too slow: it took nothing"), std::string::npos);
    logger.setHistoryEnabled("DrawnowTimeout", false, 10, false);
}

TEST_F(PressureTest, CountsTheRestOfAFrameThatIsSentBeforeTheClose) {
    fOptions.limits.memory = 7000000;
    start();
    auto good = join();
    good.sendText(R"({"t":"unsubscribe","channels":["/fig/*"]})");
    settle(good);
    auto first = joinSlow();
    auto second = joinSlow();
    publish("/fig/1", std::string(6000000, 'x'));
    std::size_t ended = 0;
    for (auto* page : {&first, &second}) {
        page->sendText("nonsense");
        for (++ended; fGateway->statistics().disconnected < ended;) settle(good);
        settle(good);  // the turn that counted it has charged the copy
        const bool isFirst = page == &first;
        EXPECT_TRUE(isFirst || held() > 1000000) << "a copy of its own";
        EXPECT_EQ(page->readClose(), isFirst ? 0U : 4000U) << "no room for another copy";
    }
    while (held() > 10000) settle(good);
}

TEST_F(PressureTest, ReadsNoMoreOfAPageThanIsHeard) {
    fOptions.limits.undelivered = 50000;
    fOptions.maySubscribe.push_back("/up/*");
    std::latch isOpen(1);
    start();
    std::atomic<std::size_t> heard{0};
    const auto service = relay::message_service::createMessageService("slow", {}).get();
    const auto hear = [&](const auto&) {
        isOpen.wait();
        ++heard;
    };
    const auto subscription = service->subscribe("/up/gate", hear).get();
    auto flood = join();
    auto good = join();
    const auto text = std::string(10000, 'x');
    std::thread sender([&] {
        for (int i = 0; i < 500; ++i) {
            flood.sendText(R"({"t":"publish","channel":"/up/gate","text":")" + text + "\"}");
        }
    });
    while (fGateway->statistics().textsReceived < 5) settle(good);
    for (int i = 0; i < 200; ++i) settle(good);  // turns in which more would have been read
    EXPECT_LT(fGateway->statistics().textsReceived, 10U);
    EXPECT_TRUE(held() > 50000 && held() < 150000) << held();
    isOpen.count_down();
    sender.join();
    settle(flood);
    kirohost::waitForDelivery();
    EXPECT_EQ(heard, 500U);
    EXPECT_LT(held(), 1000U);
}

TEST_F(PressureTest, AsksNoMoreOfAPageThatDoesNotReadItsAnswers) {
    fOptions.limits.readRate = 1 << 30;
    start();
    auto good = join();
    auto asks = joinSlow();
    static constexpr int kFrames = 60;
    static constexpr int kQuestions = 1000;
    std::thread sender([&] {
        std::string questions = "[";
        for (int i = 0; i < kQuestions; ++i) {
            questions += R"({"t":"echo","id":")" + std::string(250, 'i') + "\"},";
        }
        questions.back() = ']';
        for (int i = 0; i < kFrames; ++i) asks.sendText(questions);
    });
    while (held() < 900000) settle(good);
    for (int i = 0; i < 4000; ++i) settle(good);  // turns in which more would have been answered
    EXPECT_LT(held(), 3000000U);
    for (int i = 0; i < kFrames * kQuestions; ++i) ASSERT_NE(asks.readControl("echo"), "") << i;
    sender.join();
}

TEST_F(PressureTest, ReadsLongFramesInTurnsAndNoFasterThanAgreed) {
    fOptions.limits.readRate = 100000;
    std::latch isHeld(1);
    std::latch isSent(1);
    const auto observing = kirohost::observeLog([&](const kirohost::LogRecord& record) {
        if (!record.text.starts_with("refused a page's")) return;
        isHeld.count_down();
        isSent.wait();  // on the gateway's thread
    });
    start();
    auto good = join();
    auto says_much = join();
    const auto frameOf = [](std::size_t size) {
        std::string acks = R"([{"t":"publish","channel":"/up/a","text":"begin"},)";
        while (acks.size() < size) acks += R"({"t":"ack","last":0},)";
        return acks + R"({"t":"publish","channel":"/up/a","text":"end"}])";
    };
    says_much.sendText(R"({"t":"subscribe","channels":["/secret"]})");
    isHeld.wait();
    says_much.sendText(frameOf(150000));
    static constexpr int kTurns = 7;  // fewer than that frame takes, more than if read at once
    for (int i = 0; i < kTurns; ++i) {
        good.sendText(R"({"t":"publish","channel":"/up/a","text":"turn"})");
    }
    isSent.count_down();
    EXPECT_EQ(fEvents.take(), "/up/a begin");
    for (int i = 0; i < kTurns; ++i) EXPECT_EQ(fEvents.take(), "/up/a turn") << i;
    EXPECT_EQ(fEvents.take(), "/up/a end");

    std::thread sender([&] { says_much.sendText(frameOf(2000000)); });
    EXPECT_EQ(fEvents.take(), "/up/a begin");
    for (int i = 0; i < 1000; ++i) settle(good);  // turns in which all of it would have been read
    kirohost::waitForDelivery();
    EXPECT_EQ(fEvents.size(), 0U);
    fGateway.reset();
    sender.join();
}
