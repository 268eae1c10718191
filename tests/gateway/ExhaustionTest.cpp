// What becomes of the gateway, its pages and strangers when memory runs out on its thread, at each
// place in turn, and when whoever reads its log throws.
#include <openssl/crypto.h>

#include <cstdlib>
#include <new>
#include <optional>
#include <stdexcept>

#include "Certificate.hpp"
#include "FailingNew.hpp"
#include "GatewayFixture.hpp"
#include "kirohost/Controls.hpp"

using gatewaytest::GatewayTest;
using gatewaytest::Peer;

namespace {

/// Whether OpenSSL's allocations fail like the others. Not for all of the time: a hand-shake alone
/// makes 1,600 of them.
std::atomic<bool> openSslToo{false};
const int openSslAllocates = CRYPTO_set_mem_functions(
    [](std::size_t size, const char*, int) {
        return openSslToo ? ::operator new(size, std::nothrow) : std::malloc(size);
    },
    [](void* bytes, std::size_t size, const char*, int) { return std::realloc(bytes, size); },
    [](void* bytes, const char*, int) { std::free(bytes); });

class ExhaustionTest : public GatewayTest {
  protected:
    ExhaustionTest() {
        fOptions.limits.connections = 1000;
        fOptions.limits.comeback = std::chrono::milliseconds(200);
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
    /// Has each allocation of a visit, from where it calls `arm`, fail in turn, and looks after the
    /// others each time.
    void walk(const std::function<void()>& visit) {
        startAndAdopt();
        fStep = 0;
        // How many there are differs a little with what the thread has done before.
        for (int calm = 0; calm < 3 && !HasFailure();) {
            fStep += fStride;
            SCOPED_TRACE(fStep);
            visit();
            calm = fPoint.disarm() ? 0 : calm + 1;
            Peer stranger({fAccess.port});
            checkGoodPage();
            expectNothing(stranger);
        }
        EXPECT_GT(fStep, 5U);

        settle(*fGood);
        while (viewCount() > 1) std::this_thread::yield();
        EXPECT_LT(held(), 50000U) << "what was held for the others is given back";
        fGateway.reset();
    }
    void arm() { fPoint.arm(fStep); }
    /// Gives a page its view, as far as that gets; returns the gateway's hello, or nothing.
    std::string enter(Peer& page, const std::string& more = {}) {
        page.send(gatewaytest::upgradeRequest(fAccess, fToken));
        if (!page.readHead().starts_with("HTTP/1.1 101")) return {};
        page.sendFrame(9, "ping");
        page.sendText(R"({"t":"hello","version":1,"subscribe":["/fig/*","/bin"])" + more + "}");
        return page.readControl("hello");
    }
    static std::string returnTo(const std::string& hello) {
        const auto view = boost::json::parse(hello).at("view").as_string();
        return R"(,"view":")" + std::string(view) + R"(","last":0)";
    }
    /// A page that does not read, in the middle of a text. Calls `arm`.
    Peer full() {
        auto access = fAccess;
        access.receiveBuffer = 4096;
        Peer page(access);
        fEntered = enter(page);
        publish("/bin", std::string(6000000, 'x'));
        arm();
        return page;
    }
    void visit() {
        arm();
        const auto code = gatewaytest::secretOf(fGateway->singleUseLink());
        const auto host = "Host: " + fAccess.host() + "\r\n";
        Peer asks(fAccess);
        asks.send("POST /kiroweb/token HTTP/1.1\r\n" + host + "Origin: " + fAccess.origin() +
                  "\r\nContent-Length: 64\r\n\r\n" + code.substr(0, 10));
        asks.send(code.substr(10) + "GET / HTTP/1.1\r\n" + host + "Connection: close\r\n\r\n");
        const auto head = asks.readHead();
        EXPECT_TRUE(head.empty() || head.starts_with("HTTP/1.1 200")) << head;
        asks.readAll();

        Peer page(fAccess);
        openSslToo = true;
        const auto hello = enter(page);
        openSslToo = false;
        if (hello.empty()) return;
        page.sendText(R"([{"t":"subscribe","channels":["/log","/secret"]},)"
                      R"({"t":"channel","number":1,"name":"/up/b"},)"
                      R"({"t":"publish","channel":"/up/a","text":"1"}])");
        page.sendFrame(2, "\1\1\1" + std::string(13, '\0') + "a block of the page's own");
        if (!isSettled(page)) return;
        for (int i = 0; i < 40; ++i) publish("/fig/1", std::string(100, 't'));
        publish("/fig/1", std::string(100000, 't'));
        auto block = sendBlock(1000);
        page.sendText(R"([{"t":"block","transfer":1,"ok":true},{"t":"ack","last":0}])");
        if (!isSettled(page)) return;
        page.cut();
        Peer back(fAccess);
        if (enter(back, returnTo(hello)).empty()) return;
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
        std::vector<gatewaytest::Record> records;
        do {
            records = fGood->readRecords(1);
            for (const auto& record : records) EXPECT_EQ(record.number, ++fLast);
        } while (!records.empty() && records.back().text != "mark");
        if (records.empty()) joinGood();
        fGood->sendText(R"({"t":"ack","last":)" + std::to_string(fLast) + "}");
    }
    void waitUntilOnlyTheGoodPageIsThere() {
        while (fGateway->statistics().pages > 1) std::this_thread::yield();
    }
    /// Whoever has not asked for anything gets nothing, whatever number its descriptor has.
    static void expectNothing(Peer& stranger) {
        stranger.closeWriting();
        EXPECT_EQ(stranger.readAll(), "");
    }

    support::FailPoint fPoint;
    std::size_t fStep = 0;  ///< which allocation fails
    std::size_t fStride = 1;
    std::optional<Peer> fGood;
    std::string fEntered;  ///< the gateway's hello to the page that is full
    std::size_t fLast = 0;
};

}  // namespace

TEST_F(ExhaustionTest, HarmsNobodyWhereverMemoryRunsOutOnce) {
    const auto stream = relay::binary::experimental::createBinaryStream("/up/b", {});
    stream->receive([](auto&&) {});
    walk([this] { visit(); });
}

TEST_F(ExhaustionTest, HarmsNobodyWithTls) {
    const gatewaytest::Certificate certificate;
    fOptions.certificateFile = fOptions.keyFile = certificate.path();
    fAccess.isTls = true;
    EXPECT_EQ(openSslAllocates, 1);
    walk([this] { visit(); });
    // Not each allocation of a hand-shake, which makes hundreds.
    fStride = 37;
    walk([this] {
        arm();
        openSslToo = true;
        Peer page(fAccess);
        openSslToo = false;
        page.send("GET / HTTP/1.1\r\nHost: " + fAccess.host() + "\r\nConnection: close\r\n\r\n");
        page.readAll();
    });
    EXPECT_GT(fStep, 500U) << "OpenSSL's allocations were among them";
}

TEST_F(ExhaustionTest, HarmsNobodyWhenAPageComesInTwice) {
    walk([this] {
        auto page = full();
        Peer back(fAccess);
        if (!enter(back, returnTo(fEntered)).empty()) isSettled(back);
    });
}

TEST_F(ExhaustionTest, HarmsNobodyWhenAPageIsClosedInTheMiddleOfAFrame) {
    fOptions.limits.memory = 10'000'000;
    walk([this] {
        auto says_nonsense = full();
        says_nonsense.sendText("nonsense");
        says_nonsense.readAll();
        waitUntilOnlyTheGoodPageIsThere();
    });
    walk([this] {
        auto holds_most = full();
        publish("/bin", std::string(6000000, 'x'));
        holds_most.readAll();
        waitUntilOnlyTheGoodPageIsThere();
    });
}

TEST_F(ExhaustionTest, HarmsNobodyWhenTimeIsUp) {
    fOptions.limits.hello = std::chrono::milliseconds(50);
    fOptions.limits.queue = std::chrono::milliseconds(20);
    walk([this] {
        auto slow = full();
        waitUntilOnlyTheGoodPageIsThere();
        Peer says_nothing(fAccess);
        says_nothing.send(gatewaytest::upgradeRequest(fAccess, fToken));
        says_nothing.readAll();
    });
}

TEST_F(ExhaustionTest, HarmsNobodyWhileReadingIsHeld) {
    std::atomic<bool> isOpen{true};
    const auto service = relay::message_service::createMessageService("slow", {}).get();
    const auto hear = [&](const auto&) { isOpen.wait(false); };
    const auto subscription = service->subscribe("/up/gate", hear).get();
    walk([&] {
        isOpen = false;
        const auto before = fGateway->statistics().textsReceived;
        Peer page(fAccess);
        enter(page);
        arm();
        for (int i = 0; i < 100; ++i) {
            page.sendText(R"({"t":"publish","channel":"/up/gate","text":"1"})");
        }
        while (fGateway->statistics().pages > 1 &&
               fGateway->statistics().textsReceived < before + 64) {
            std::this_thread::yield();
        }
        isOpen = true;
        isOpen.notify_all();
        isSettled(page);
    });
}

TEST_F(ExhaustionTest, StopsWhereverMemoryRunsOutOnce) {
    for (bool hasFailed = true; hasFailed && !HasFailure();) {
        SCOPED_TRACE(++fStep);
        startAndAdopt();
        auto other = join();
        auto block = sendBlock(9);
        publish("/fig/1", std::string(6000000, 'x'));
        arm();
        std::thread stopping([this] { fGateway->stop(); });
        for (auto* page : {&other, &*fGood}) {
            page->readAll();
            page->cut();
        }
        stopping.join();
        hasFailed = fPoint.disarm();
        EXPECT_FALSE(block.get().delivered);
    }
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
