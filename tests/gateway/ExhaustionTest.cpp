// What becomes of the gateway, its pages and strangers when memory runs out on its thread, at each
// place in turn, and when whoever reads its log throws.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "FailingNew.hpp"
#include "GatewayFixture.hpp"
#include "kirohost/Controls.hpp"

using gatewaytest::GatewayTest;
using gatewaytest::Peer;

namespace {

class ExhaustionTest : public GatewayTest {
  protected:
    ExhaustionTest() {
        fOptions.limits.connections = 1000;
        fOptions.onLastPageGone = [] {};
    }

    /// The gateway's thread writes a line when the first page connects.
    void startAndAdopt() {
        const auto observing = kirohost::observeLog([this](const kirohost::LogRecord& record) {
            if (record.logger == "gateway") fPoint.adopt();
        });
        start();
        joinGood();
    }
    void joinGood() {
        fGood.emplace(join());
        fGood->sendText(R"({"t":"unsubscribe","channels":["/bin"]})");
        settle(*fGood);
        fLast = 0;
    }
    /// A connection that goes through everything that is done on the gateway's thread, as far as it
    /// gets.
    void visit() {
        Peer asks(fAccess);
        asks.send("GET / HTTP/1.1\r\nHost: " + fAccess.host() + "\r\nConnection: close\r\n\r\n");
        asks.readAll();

        Peer page(fAccess);
        page.send(gatewaytest::upgradeRequest(fAccess, fToken));
        if (!page.readHead().starts_with("HTTP/1.1 101")) return;
        page.sendFrame(9, "ping");
        page.sendText(R"({"t":"hello","version":1,"subscribe":["/fig/*","/bin"]})");
        const auto hello = page.readControl("hello");
        if (hello.empty()) return;
        page.sendText(R"([{"t":"subscribe","channels":["/log","/secret"]},)"
                      R"({"t":"channel","number":1,"name":"/up/b"},)"
                      R"({"t":"publish","channel":"/up/a","text":"1"}])");
        page.sendFrame(2, "\1\1\1" + std::string(13, '\0') + "a block of the page's own");
        if (!isSettled(page)) return;
        for (int i = 0; i < 40; ++i) publish("/fig/1", std::string(100, 't'));
        publish("/fig/1", std::string(100000, 't'));
        auto block = sendBlock(1000);
        page.sendText(R"([{"t":"block","transfer":1,"ok":true},{"t":"ack","last":1}])");
        if (!isSettled(page)) return;
        page.cut();
        Peer back(fAccess);
        back.send(gatewaytest::upgradeRequest(fAccess, fToken));
        if (!back.readHead().starts_with("HTTP/1.1 101")) return;
        const auto view = boost::json::parse(hello).at("view").as_string();
        back.sendText(R"({"t":"hello","version":1,"view":")" + std::string(view) +
                      R"(","last":1})");
        if (isSettled(back)) back.sendText("[{}");
        back.readClose();
    }
    static bool isSettled(Peer& peer) {
        peer.sendText(R"({"t":"echo","id":"settle"})");
        return !peer.readControl("echo").empty();
    }
    /// The page that was there all the time has missed nothing, or knows that it has to return.
    void checkGoodPage() {
        publish("/fig/9", "mark");
        auto records = fGood->readRecords(1);
        while (!records.empty() && records.back().text != "mark") {
            for (const auto& record : records) EXPECT_EQ(record.number, ++fLast);
            records = fGood->readRecords(1);
        }
        for (const auto& record : records) EXPECT_EQ(record.number, ++fLast);
        if (records.empty()) joinGood();
    }
    /// Whoever has not asked for anything gets nothing, whatever number its descriptor has.
    static void expectNothing(Peer& stranger) {
        stranger.closeWriting();
        EXPECT_EQ(stranger.readAll(), "");
    }

    support::FailPoint fPoint;
    std::optional<Peer> fGood;
    std::size_t fLast = 0;
};

}  // namespace

TEST_F(ExhaustionTest, HarmsNobodyWhereverMemoryRunsOutOnce) {
    const auto stream = relay::binary::experimental::createBinaryStream("/up/b", {});
    stream->receive([](auto&&) {});
    startAndAdopt();
    std::size_t n = 0;
    for (bool hasFailed = true; hasFailed;) {
        SCOPED_TRACE(++n);
        fPoint.arm(n);
        visit();
        hasFailed = fPoint.disarm();
        Peer stranger(fAccess);
        checkGoodPage();
        expectNothing(stranger);
        if (HasFailure()) break;
    }
    EXPECT_GT(n, 100U);
    fGateway.reset();
}

TEST_F(ExhaustionTest, StopsAndServesAgainWithoutAnyMemory) {
    for (const std::size_t n : {1U, 2U, 3U, 5U, 8U, 13U, 21U}) {
        startAndAdopt();
        fPoint.arm(n, true);
        Peer waits(fAccess);
        waits.send("GET / HTTP/1.1\r\nHost: " + fAccess.host() + "\r\n\r\n");
        publish("/fig/1", std::string(50000, 'x'));
        if (n % 2 == 0) {
            fPoint.disarm();
            auto late = join();
            EXPECT_TRUE(isSettled(late)) << "there is memory again";
        }
        fGateway->stop();
        fPoint.disarm();
        fGateway.reset();
        fGood.reset();
    }
}

TEST_F(ExhaustionTest, GoesOnWhenWhoReadsTheLogThrows) {
    const auto throwing = kirohost::observeLog(
        [](const kirohost::LogRecord&) { throw std::runtime_error("no lines, please"); });
    fOptions.onLastPageGone = [] { throw 7; };
    start();
    Peer(fAccess).send("nonsense\r\n\r\n");
    auto bad = join();
    bad.sendText("nonsense");
    EXPECT_EQ(bad.readClose(), 4000U);
    join().cut();
    auto page = join();
    publish("/fig/1", "a");
    EXPECT_EQ(page.readRecords(1).size(), 1U);
    settle(page);
    fGateway.reset();
    EXPECT_EQ(page.readClose(), 1001U);
}
