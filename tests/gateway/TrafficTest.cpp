#include "GatewayFixture.hpp"
#include "kirohost/Controls.hpp"

using gatewaytest::GatewayTest;
using Records = std::vector<gatewaytest::Record>;
using relay::binary::experimental::createBinaryStream;

using TrafficTest = GatewayTest;

TEST_F(TrafficTest, ShowsAPageInAndLetsItHearAndPublish) {
    auto& limits = fOptions.limits;
    limits.messageSize = 100000;
    limits.queueSize = 2000;
    limits.pieceSize = 3000;
    limits.batchSize = 400;
    limits.namesPerFrame = 1025;
    limits.blocksUnderWay = 6;
    limits.bytesUnderWay = 7000;
    limits.queue = std::chrono::milliseconds(8000000);
    start();
    auto page = join(R"(,"client":"a page")");
    EXPECT_EQ(hello("kind"), "first");
    EXPECT_EQ(boost::json::serialize(fHello["configuration"]), R"({"figures":["/fig/1"]})");
    EXPECT_EQ(boost::json::serialize(fHello["limits"]),
              R"({"message":100000,"queue":2000,"frame":3016,"blocksUnderWay":6,)"
              R"("bytesUnderWay":7000,"names":1025,"queueMilliseconds":8000000,"ackBytes":1000,)"
              R"("ackMilliseconds":200,"blockMilliseconds":3600000,"returnMilliseconds":3600000})");
    EXPECT_EQ(fAnnouncement, R"(/views {"kind":"first","view":1,"client":"a page"})");
    publish("/fig/1", R"({"x":NaN})");
    publish("/log", "not subscribed");
    publish("/fig/2", "\xff");
    EXPECT_EQ(page.readRecords(2),
              (Records{{1, "/fig/1", R"({"x":NaN})", false}, {2, "/fig/2", "/w==", true}}));

    page.sendText(R"([{"t":"publish","channel":"/up/a","text":"1"},)"
                  R"({"t":"publish","channel":"/fig/1","text":"2"},)"
                  R"({"t":"subscribe","channels":["/log","/secret","/*",")" +
                  std::string(257, 'n') + R"("]}])");
    EXPECT_EQ(fEvents.take(), "/up/a 1");
    for (const char* refused : {"/fig/1", "/secret", "/*", ""}) {  // the last is not repeated
        EXPECT_NE(page.readControl("refused").find('"' + std::string(refused) + '"'),
                  std::string::npos);
    }
    publish("/fig/1", "still");
    EXPECT_EQ(page.readRecords(1), (Records{{3, "/fig/1", "still", false}}));
    page.sendText(R"({"t":"unsubscribe","channels":["/fig/*"]})");
    settle(page);
    publish("/fig/1", "not any more");
    publish("/log", "now");
    EXPECT_EQ(page.readRecords(1), (Records{{4, "/log", "now", false}}));
    EXPECT_EQ(fGateway->statistics().refusals, 4U);
}

TEST_F(TrafficTest, CarriesBlocksFromThePageToTheEngine) {
    start();
    auto page = join();
    const auto stream = createBinaryStream("/up/blocks", {});
    stream->receive([this](auto&& block) { fEvents.add(support::bytesOf(block)); });
    page.sendText(R"([{"t":"channel","number":2,"name":"/up/blocks"},)"
                  R"({"t":"channel","number":3,"name":"/x"}])");
    std::string header = "\1\1\2" + std::string(13, '\0');
    for (const std::size_t size : {5U, 50000U, 5000U}) {  // some come in parts
        page.sendFrame(2, header + std::string(size, 'b'));
        EXPECT_EQ(fEvents.take(), std::string(size, 'b'));
    }
    header[2] = '\3';
    page.sendFrame(2, header);
    EXPECT_NE(page.readControl("refused"), "");
    EXPECT_EQ(fGateway->statistics().blocksReceived, 3U);
}

TEST_F(TrafficTest, KeepsTheOrderOfAllThatIsPublishedUnderLoad) {
    static constexpr std::size_t kCount = 20000;
    start();
    auto page = join();
    std::thread engine([this] {
        for (std::size_t i = 0; i < kCount; ++i) {
            if (i % 500 == 0) sendBlock(100);
            publish("/fig/1", std::to_string(i));
        }
    });
    std::size_t texts = 0;
    std::size_t blocks = 0;
    while (texts < kCount) {
        const auto frame = page.readFrame();
        ASSERT_NE(frame.opcode, 0U);
        if (frame.opcode == 2) {
            EXPECT_EQ(texts, blocks * 500);  // exactly in between
            answer(page, static_cast<unsigned>(++blocks), true);
        } else if (!frame.payload.starts_with('{')) {
            for (const auto& record : gatewaytest::readBatch(frame.payload)) {
                ASSERT_EQ(record.text, std::to_string(texts++));
                ASSERT_EQ(record.number, texts + blocks);
            }
        }
    }
    engine.join();
    EXPECT_EQ(blocks, kCount / 500);
}

TEST_F(TrafficTest, DeliversABlockWhenEveryPageHasIt) {
    start();
    EXPECT_FALSE(sendBlock(9).get().delivered);  // no page
    auto first = join();
    auto second = join();
    auto both = sendBlock(9);
    EXPECT_EQ(fGateway->diagnostics().find(hello("view")), std::string::npos) << "a secret";
    for (auto* page : {&first, &second}) EXPECT_EQ(page->readBinary().size(), 25U);
    answer(first, 1, true);
    settle(first);
    EXPECT_FALSE(both.isReady());
    answer(second, 1, true);
    EXPECT_TRUE(both.get().delivered);

    auto refused = sendBlock(9);
    answer(first, 2, true);
    answer(second, 2, false);
    EXPECT_EQ(refused.get().buffer.size(), 9U) << "given back";

    {
        auto small = join(R"(,"limits":{"block":8})");
        auto too_large = sendBlock(9);
        for (auto* page : {&first, &second}) answer(*page, 3, true);
        EXPECT_FALSE(too_large.get().delivered) << "one page has refused it";
        const auto stream = createBinaryStream("/fig/\xff", {{"returnOnFail", "true"}});
        auto unnamed = stream->send(support::bufferOf("block"));
        EXPECT_FALSE(unnamed.get().delivered) << "no page can be told its channel";
        small.sendFrame(8, "\x03\xe8");
        EXPECT_EQ(small.readClose(), 1000U);
    }
    auto gone = sendBlock(9);
    answer(first, 4, true);
    second.sendFrame(8, "\x03\xe8");
    EXPECT_FALSE(gone.get().delivered);
    EXPECT_EQ(second.readClose(), 1000U);
    const auto statistics = fGateway->statistics();
    EXPECT_EQ(statistics.blocksGivenBack, 5U);
    EXPECT_EQ(statistics.blocksDelivered, 1U);
    EXPECT_EQ(statistics.views, 3U);
    EXPECT_EQ(statistics.pages, 1U);
    EXPECT_NE(fGateway->diagnostics().find(R"("blocksGivenBack":5)"), std::string::npos);
}

TEST_F(TrafficTest, LetsNoLaneHoldUpAnother) {
    fOptions.limits.blocksUnderWay = 1;
    fOptions.lanes = {{"/log"}, {"/bin", "/fig/2"}};
    start();
    auto page = join();
    for (int i = 0; i < 2; ++i) sendBlock(9);
    publish("/fig/2", "behind the blocks");
    publish("/fig/1", "beside them");
    EXPECT_EQ(page.readRecords(1), (Records{{2, "/fig/1", "beside them", false}}));
    for (const unsigned transfer : {1U, 2U}) answer(page, transfer, true);
    EXPECT_EQ(page.readRecords(1), (Records{{4, "/fig/2", "behind the blocks", false}}));
}

TEST_F(TrafficTest, HasSeveralGatewaysInOneProcess) {
    start();
    auto page = join();
    const auto first = std::move(fGateway);
    fOptions.maySubscribe.push_back("/up/*");
    fGateway = std::make_unique<kirogateway::Gateway>(fOptions);
    fAccess.port = fGateway->port();
    gatewaytest::Peer stranger(fAccess);
    stranger.send(upgradeRequest(fAccess, fToken));
    EXPECT_TRUE(stranger.readHead().starts_with("HTTP/1.1 403")) << "a token is for one gateway";
    fToken = gatewaytest::secretOf(fGateway->link());
    auto other = join(R"(,"subscribe":["/fig/*","/bin","/up/*"])");
    // What a page publishes goes to the pages of the other gateway, not to its own.
    page.sendText(R"({"t":"publish","channel":"/up/a","text":"1"})");
    EXPECT_EQ(other.readRecords(1), (Records{{1, "/up/a", "1", false}}));
    other.sendText(R"({"t":"publish","channel":"/up/a","text":"its own"})");
    settle(other);
    publish("/up/a", "the engine's");
    EXPECT_EQ(other.readRecords(1), (Records{{2, "/up/a", "the engine's", false}}));
    fGateway.reset();
    EXPECT_EQ(other.readClose(), 1001U);
    publish("/fig/1", "still");
    EXPECT_EQ(page.readRecords(1), (Records{{1, "/fig/1", "still", false}}));
}

TEST_F(TrafficTest, ResumesAfterALostConnection) {
    start();
    auto page = join();
    const auto view = hello("view");
    publish("/fig/1", "a");
    page.readRecords(1);
    page.cut();
    publish("/fig/1", "b");
    auto block = sendBlock(9);
    publish("/fig/1", "c");

    auto again = comeBack(view, 1);
    EXPECT_EQ(fHello["next"], 2);
    EXPECT_EQ(fAnnouncement, R"(/returns {"kind":"return","view":1,"client":""})");
    EXPECT_EQ(again.readRecords(1), (Records{{2, "/fig/1", "b", false}}));
    EXPECT_EQ(again.readBinary()[8], 3);
    EXPECT_EQ(again.readRecords(1), (Records{{4, "/fig/1", "c", false}}));
    again.cut();
    again = comeBack(view, 4, R"(,"refused":[3])");
    EXPECT_FALSE(block.get().delivered) << "the answer was lost with the connection";

    auto third = comeBack(view, 4);
    EXPECT_EQ(again.readClose(), 4005U) << "the view is the newest connection's";
    settle(third);
}

TEST_F(TrafficTest, TellsTheInterpreterThatTheLastPageHasGone) {
    fOptions.onLastPageGone = {};
    kirohost::runPendingTasks();
    start();
    auto page = join();
    page.sendFrame(8, "\x03\xe8");
    while (!fGateway->lastPageGone()) std::this_thread::yield();
    fGateway.reset();  // what it began is done then
    EXPECT_EQ(kirohost::runPendingTasks(), 1U);
}

TEST_F(TrafficTest, StopsWithPagesConnectedAndPublishersAtWork) {
    start();
    auto page = join();
    auto other = join();
    auto pending = sendBlock(9);
    std::atomic<bool> isOver{false};
    std::latch isUnderWay(1);
    std::thread engine([&] {
        for (int i = 0; !isOver; ++i) {
            publish("/fig/1", "text");
            sendBlock(1000);
            if (i == 0) isUnderWay.count_down();
        }
    });
    isUnderWay.wait();
    other.cut();
    std::thread reader([&page] { page.readAll(); });
    fGateway.reset();
    isOver = true;
    engine.join();
    reader.join();
    EXPECT_FALSE(pending.get().delivered);
}
