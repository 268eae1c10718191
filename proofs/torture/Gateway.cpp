// What becomes of the gateway, its pages and strangers when memory runs out on its thread, at each
// place in turn; and of those who start it, publish to it and ask it.
#include <optional>
#include <thread>

#include "Certificate.hpp"
#include "GatewayFixture.hpp"
#include "Scenario.hpp"
#include "kirohost/Controls.hpp"

namespace torture {
namespace {

using gatewaytest::GatewayTest;
using gatewaytest::Peer;

/// What the tests' parts find counts here as well.
class Listener : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult& result) override {
        if (result.failed()) finding(result.message());
    }
};

void expect(bool holds, const std::string& text) {
    if (!holds) finding(text);
}

/// A gateway with a page that is there all the time, and what others do meanwhile.
class Gateway : public GatewayTest {
  public:
    using Visit = void (Gateway::*)();

    explicit Gateway(bool isTls = false) {
        testing::UnitTest::GetInstance()->listeners().Append(new Listener);
        fOptions.limits.connections = 1000;
        fOptions.limits.comeback = std::chrono::milliseconds(200);
        fOptions.onLastPageGone = [] {};
        fOfPages->receive([](auto&&) {});
        if (!isTls) return;
        fCertificate.emplace();
        fOptions.certificateFile = fOptions.keyFile = fCertificate->path();
        fAccess.isTls = true;
    }
    void TestBody() override {}

    bool attempt(Failure failure, Visit visiting) {
        if (fAttempts++ % kTogether == 0) renew();
        fFailure = failure;
        (this->*visiting)();
        const bool hasFailed = disarm();
        Peer stranger({fAccess.port});
        checkGoodPage();
        expectNothing(stranger);
        return hasFailed;
    }
    /// Whoever starts, asks and stops.
    bool operate(Failure failure) {
        const auto use = [this] {
            start();
            static_cast<void>(fGateway->link());
            static_cast<void>(fGateway->singleUseLink());
            static_cast<void>(fGateway->diagnostics());
        };
        const bool hasFailed = exposed(failure, use);
        stop();
        use();
        Peer(fAccess).cut();
        fGateway->stop();
        stop();
        return hasFailed;
    }
    /// Ends a gateway with pages in the midst of it, whatever there is of memory.
    bool end(Failure failure) {
        startAndExpose();
        std::optional<Peer> other(join());
        std::optional<Block> block(sendBlock(9));
        publish("/fig/1", std::string(6000000, 'x'));
        arm(failure, false);
        std::thread stopping([this] { fGateway->stop(); });
        for (auto* page : {&*other, &*fGood}) {
            page->readAll();
            page->cut();
        }
        stopping.join();
        const bool hasFailed = disarm();
        expect(!block->get().delivered, "a block that nobody has was delivered");
        block.reset();
        other.reset();
        stop();
        return hasFailed;
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
        expect(head.empty() || head.starts_with("HTTP/1.1 200"), "a code is answered by " + head);
        asks.readAll();

        Peer page(fAccess);
        const auto hello = enter(page);
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
    void comeInTwice() {
        auto page = full();
        Peer back(fAccess);
        if (!enter(back, returnTo(fEntered)).empty()) isSettled(back);
    }
    void sayNonsense() {
        auto page = full();
        page.sendText("nonsense");
        page.readAll();
        waitUntilOnlyTheGoodPageIsThere();
    }
    void holdMost() {
        auto page = full();
        publish("/bin", std::string(6000000, 'x'));
        page.readAll();
        waitUntilOnlyTheGoodPageIsThere();
    }
    void letTimePass() {
        auto slow = full();
        waitUntilOnlyTheGoodPageIsThere();
        Peer says_nothing(fAccess);
        says_nothing.send(gatewaytest::upgradeRequest(fAccess, fToken));
        says_nothing.readAll();
    }
    void holdReading() {
        std::atomic<bool> isOpen{false};
        const auto hear = [&](const auto&) { isOpen.wait(false); };
        const auto held = fService->subscribe("/up/gate", hear).get();
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
        kirohost::waitForDelivery();
    }
    /// The publishing thread gets no memory.
    void sayMuch() {
        const std::string text(100, 't');
        const std::string large(100000, 't');
        std::optional<Block> sent;
        exposed(fFailure, [&] {
            publish("/fig/1", text);
            publish("/fig/1", large);
            sent = sendBlock(100);
            publish("/fig/2", text);
        });
    }

    kirogateway::Limits& limits() { return fOptions.limits; }

  private:
    static constexpr int kTogether = 20;

    /// Runs what may throw for lack of memory on this thread.
    template <typename Operation>
    static bool exposed(Failure failure, const Operation& operation) {
        torture::arm(failure, false);
        try {
            exposeThread(true);
            operation();
        } catch (const std::bad_alloc&) {
        } catch (const std::system_error&) {
        } catch (const std::exception& error) {
            exposeThread(false);
            finding(std::string("throws what it must not: ") + error.what());
        }
        exposeThread(false);
        return disarm();
    }
    void arm() const { torture::arm(fFailure, true); }
    void arm(Failure failure, bool endsByItself) const { torture::arm(failure, endsByItself); }

    /// A new gateway, when all that the one before held has been given back.
    void renew() {
        const bool isFirst = fGateway == nullptr;
        stop();
        if (!isFirst && fAttempts > 2 * kTogether) expectGivenBack(fBefore);
        fBefore = liveBlocks();
        startAndExpose();
    }
    void stop() {
        fGood.reset();
        fSubscriptions.clear();
        fGateway.reset();
        fEvents.clear();
        fHello = {};
        kirohost::waitForDelivery();
    }
    static void expectGivenBack(long before) {
        static int kept = 0;  // for good, on first use
        if (!isGivenBack(before) && ++kept > 3) finding("leak: blocks are lost again and again");
    }
    /// The gateway's thread writes a line when the first page connects.
    void startAndExpose() {
        const auto observing = kirohost::observeLog(
            [main = std::this_thread::get_id()](const kirohost::LogRecord& record) {
                if (record.logger != "gateway" || std::this_thread::get_id() == main) return;
                exposeThread(true);
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
            for (const auto& record : records)
                expect(record.number == ++fLast, "a gap or a double");
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
        const auto got = stranger.readAll();
        expect(got.empty(), "stray bytes: " + got);
    }

    const std::shared_ptr<relay::binary::experimental::BinaryStream> fOfPages =
        relay::binary::experimental::createBinaryStream("/up/b", {});
    std::optional<gatewaytest::Certificate> fCertificate;
    Failure fFailure;
    int fAttempts = 0;
    long fBefore = 0;  ///< blocks before the gateway
    std::optional<Peer> fGood;
    std::string fEntered;  ///< the gateway's hello to the page that is full
    std::size_t fLast = 0;
};

/// The gateway is made when its scenario is.
Scenario with(
    std::string name, bool isTls, std::function<bool(Gateway&, Failure)> attempt,
    std::function<void(kirogateway::Limits&)> change = [](auto&) {}) {
    return {std::move(name), [=, gateway = std::make_shared<std::optional<Gateway>>()](Failure f) {
                if (!*gateway) change(gateway->emplace(isTls).limits());
                return attempt(**gateway, f);
            }};
}

}  // namespace

void addGateway(Scenarios& all) {
    using std::chrono::milliseconds;
    const auto visit = [](Gateway::Visit what) {
        return [what](Gateway& gateway, Failure f) { return gateway.attempt(f, what); };
    };
    const auto less = [](auto& limits) { limits.memory = 10'000'000; };
    const auto shortTimes = [](auto& limits) {
        limits.hello = milliseconds(50);
        limits.queue = milliseconds(20);
    };
    const auto whole = [](bool (Gateway::*what)(Failure)) {
        return [what](Gateway& gateway, Failure f) {
            return expectNoLeak([&] { return (gateway.*what)(f); });
        };
    };
    all.push_back(with("gateway: start, links, diagnostics", false, whole(&Gateway::operate)));
    all.push_back(with("gateway: start with TLS", true, whole(&Gateway::operate)));
    all.push_back(with("gateway: publish", false, visit(&Gateway::sayMuch)));
    all.push_back(with("gateway: a visit", false, visit(&Gateway::visit)));
    all.push_back(with("gateway: a visit over TLS", true, visit(&Gateway::visit)));
    all.push_back(with("gateway: a page comes in twice", false, visit(&Gateway::comeInTwice)));
    all.push_back(with("gateway: nonsense in a frame", false, visit(&Gateway::sayNonsense), less));
    all.push_back(with("gateway: who holds most", false, visit(&Gateway::holdMost), less));
    all.push_back(with("gateway: time is up", false, visit(&Gateway::letTimePass), shortTimes));
    all.push_back(with("gateway: reading is held", false, visit(&Gateway::holdReading)));
    all.push_back(with("gateway: stop", false, whole(&Gateway::end)));
    all.push_back(with("gateway: stop with TLS", true, whole(&Gateway::end)));
}

}  // namespace torture
