// Sessions that the gateway's program follows, and what pages and engines hear of each other.
#include <array>
#include <boost/algorithm/string/replace.hpp>
#include <boost/json.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Frame.hpp"
#include "ServiceFixture.hpp"
#include "Status.hpp"

using namespace kirolink;
using namespace link_tool;
using namespace servicetest;
using gatewaytest::Peer;

TEST_F(ServiceTest, FollowsASessionOnceAPageAsksForIt) {
    static_cast<void>(get("/s/wind/"));
    auto& engine = begin("wind");
    EXPECT_EQ(report().followed, 0U);
    const auto early = get("/s/wind/");
    EXPECT_TRUE(hasStatus(early, "200") && early.find("Retry-After") != std::string::npos) << early;
    Peer waiting(fAccess);
    EXPECT_TRUE(hasStatus(upgrade(waiting, "wind"), "503"));
    run(milliseconds(500));
    EXPECT_EQ(engine.take(), Heard{fService->address() + "/s/wind/"});
    Peer stranger(fAccess);
    EXPECT_TRUE(hasStatus(upgrade(stranger, "wind", std::string(32, 'x')), "503"));
    auto page = join("wind");
    EXPECT_EQ(fHello["kind"].as_string(), "first");
    EXPECT_EQ(boost::json::serialize(fHello["configuration"]), R"({"title":"wind"})");
    auto second = join("wind");
    EXPECT_EQ(fHello["kind"].as_string(), "further");
    EXPECT_EQ(engine.take(), (Heard{"first 1 c", "further 2 c"}));
    follow("sea");
    follow("sky");
    const auto third = join("sky");  // in place of the one that has no page
    static_cast<void>(get("/s/sea/"));
    run(milliseconds(500));
    Peer late(fAccess);
    EXPECT_TRUE(hasStatus(upgrade(late, "sea"), "503")) << "two may be followed";
    const auto now = report();
    EXPECT_EQ(std::vector({now.known, now.followed, now.joined, now.pages}),
              (std::vector<std::size_t>{3, 2, 2, 3}));
}

TEST_F(ServiceTest, TellsNobodyWithoutItsTokenWhetherThereIsASession) {
    const auto bare = [this](const std::string& request) {
        return request + " HTTP/1.1\r\nHost: " + fAccess.host() + "\r\nOrigin: " + fAccess.origin();
    };
    const auto answers = [&] {
        const std::string upgrade = gatewaytest::upgradeRequest(fAccess, "wrong", "/s/wind");
        auto none = upgrade;
        boost::replace_first(none, "kiroweb.token.wrong", "kiroweb.other");
        auto two = upgrade;
        boost::replace_first(two, "kiroweb.v1", "kiroweb.v1, kiroweb.token.first");
        auto unspoken = upgrade;
        boost::replace_first(unspoken, "kiroweb.v1", "kiroweb.v2");
        auto foreign = upgrade;
        boost::replace_first(foreign, fAccess.origin(), "http://foreign.example");
        // A body that does not come: whoever looks at the host is answered at once.
        const auto headOnly = [](const std::string& hosts) {
            return "POST /s/wind/kiroweb/token HTTP/1.1\r\n" + hosts + "Content-Length: 4\r\n\r\n";
        };
        const auto own = "Host: " + fAccess.host() + "\r\n";
        std::vector<std::string> all;
        for (const auto& request :
             {headOnly("Host: foreign.example\r\n"), headOnly(""), headOnly(own + own),
              bare("GET /s/wind") + "\r\n\r\n", bare("GET /s/wind/") + "\r\n\r\n",
              bare("HEAD /s/wind/") + "\r\n\r\n", bare("GET /s/wind/none") + "\r\n\r\n",
              bare("PUT /s/wind/") + "\r\n\r\n",
              bare("POST /s/wind/kiroweb/token") + "\r\nContent-Length: 4\r\n\r\nc0de", upgrade,
              none, two, unspoken, foreign}) {
            Peer peer(fAccess);
            peer.send(request);
            all.push_back(peer.readHead());
        }
        return all;
    };
    const auto absent = answers();
    begin("wind");
    EXPECT_EQ(answers(), absent) << "it is heard";
    run(seconds(1));
    ASSERT_EQ(report().joined, 1U);
    EXPECT_EQ(answers(), absent);
    EXPECT_TRUE(hasStatus(absent.at(0), "403") && hasStatus(absent.at(4), "200"));
    EXPECT_TRUE(hasStatus(absent.at(9), "503"));
    join("wind");
}

TEST_F(ServiceTest, LetsPagesGoBetweenGateways) {
    follow("wind");
    const auto page = join("wind");
    EXPECT_EQ(boost::json::serialize(fHello["gateways"]),
              R"(["ws://west.example:9/s/wind/kiroweb"])");
    const auto head = get("/s/wind/");
    EXPECT_NE(head.find(" ws://west.example:9;"), std::string::npos) << head;
    auto request = gatewaytest::upgradeRequest(fAccess, kToken, "/s/wind");
    const auto origin = fAccess.origin();
    request.replace(request.find(origin), origin.size(), "http://west.example:9");
    Peer comer(fAccess);
    comer.send(request);
    EXPECT_TRUE(hasStatus(comer.readHead(), "101"));
}

TEST_F(ServiceTest, CarriesTextsAndBlocksBothWays) {
    auto& engine = follow("wind");
    auto page = join("wind");
    auto other = join("wind");
    engine.take();
    engine.end.down()->text("/fig/1", "down");
    run(milliseconds(100));
    for (auto* peer : {&page, &other}) EXPECT_EQ(peer->readRecords(1).at(0).text, "down");
    page.sendText(R"([{"t":"publish","channel":"/up","text":"up"},)"
                  R"({"t":"channel","number":1,"name":"/up"}])");
    page.sendFrame(2, std::string("\1\1\1", 3) + std::string(13, '\0') + "bytes");
    settle(page);
    EXPECT_EQ(engine.take(), (Heard{"/up up", "/up block bytes"}));

    // So much that the page is not read from until the engine has some of it.
    constexpr std::size_t kMany = 160;
    const auto text =
        R"({"t":"publish","channel":"/up","text":")" + std::string(20000, 'x') + "\"}";
    for (std::size_t i = 0; i < kMany; ++i) page.sendText(text);
    await("the page is read", [this] { return report().waiting >= std::size_t{110} * 20000; });
    while (engine.heard.size() < kMany) run(milliseconds(50));
    engine.take();

    // Of a block each page says whether it has it.
    for (const char* isOk : {"true", "false"}) {
        const auto before = engine.end.statistics();
        engine.offer("/fig/1", "12345678");
        run(milliseconds(100));
        const std::string number = isOk == std::string("true") ? "1" : "2";
        for (auto* peer : {&page, &other}) {
            EXPECT_EQ(peer->readBinary().substr(16), "12345678");
            peer->sendText(R"({"t":"block","transfer":)" + number + R"(,"ok":)" + isOk + "}");
            settle(*peer);
        }
        const auto after = engine.end.statistics();
        EXPECT_EQ(after.blocksDelivered - before.blocksDelivered, number == "1" ? 1U : 0U);
        EXPECT_EQ(after.blocksRefused - before.blocksRefused, number == "1" ? 0U : 1U);
    }
    engine.offer("/fig/2", "12345678");
    run(milliseconds(100));
    EXPECT_EQ(engine.end.statistics().blocksNobody, 1U);
}

TEST_F(ServiceTest, HoldsNoMoreForAllSessionsThanItMay) {
    fSettings.allMemory = std::size_t{1} << 20U;
    fSettings.largest = std::size_t{2} << 20U;
    start();
    auto& sea = follow("sea");
    auto& wind = follow("wind");
    auto page = join("sea");
    const auto deaf = join("wind");
    const std::string text(std::size_t{1} << 20U, 'x');
    while (report().pages > 1) {
        wind.end.down()->text("/fig/1", text);
        run(milliseconds(50));
    }
    sea.end.down()->text("/fig/1", "calm");
    run(milliseconds(100));
    EXPECT_EQ(page.readRecords(1).at(0).text, "calm");
    EXPECT_EQ(report().link.refusals, 0U);
    // Nor may one message, and nobody waits for it or believes to have had it.
    const std::string large(fSettings.largest + 1, 'x');
    sea.offer("/fig/1", large);
    run(seconds(1));
    EXPECT_EQ(sea.end.statistics().blocksRefused, 1U);
    sea.end.down()->text("/fig/1", large);
    run(seconds(1));
    auto end = page.readFrame();
    while (!end.isEnd()) end = page.readFrame();
    EXPECT_EQ(end.payload.substr(2), "a text is larger than this gateway takes");
}

TEST_F(ServiceTest, GivesEachSessionItsShareOfPages) {
    fSettings.sessionPages = 1;
    start();
    for (const char* session : {"wind", "sea"}) follow(session);
    auto page = join("wind");
    const auto other = join("sea");
    const auto next = [this] {
        Peer peer(fAccess);
        return upgrade(peer, "wind");
    };
    EXPECT_TRUE(hasStatus(next(), "503"));
    page.cut();
    while (!hasStatus(next(), "101")) {
    }
}

TEST_F(ServiceTest, LetsGoOfASessionThatItCannotServe) {
    follow("wind", "[]");
    run(seconds(2));
    EXPECT_TRUE(hasStatus(get("/elsewhere"), "404")) << "the gateway's thread has done its part";
    EXPECT_EQ(report().followed, 0U);
    follow("wind");
    join("wind");
}

TEST_F(ServiceTest, TellsPagesWhatTheLinkMeasuredOfTheEnginesClock) {
    fEngineAhead = seconds(7);
    follow("wind");
    auto page = join("wind");
    page.sendText(R"({"t":"echo","id":2,"time":true})");
    const auto said = boost::json::parse(page.readControl("echo"));
    const auto measured = report();
    EXPECT_EQ(said.at("engineAhead").as_int64(), measured.clockOffset.count());
    EXPECT_EQ(said.at("uncertainty").as_int64(), measured.clockUncertainty.count());
    EXPECT_NEAR(static_cast<double>(measured.clockOffset.count()), 7e6,
                static_cast<double>(measured.clockUncertainty.count()));
    fEngines["wind"] = nullptr;
    run(seconds(11));
    EXPECT_EQ(report().clockUncertainty.count(), 0) << "the next engine has another clock";
}

TEST_F(ServiceTest, TellsPagesOfTheirEngine) {
    follow("wind");
    auto page = join("wind");
    fIsHung = true;
    run(milliseconds(1600));
    const auto silent = boost::json::parse(page.readControl("engine"));
    EXPECT_EQ(silent.at("state").as_string(), "silent");
    EXPECT_GE(silent.at("milliseconds").as_int64(), 1000);
    fIsHung = false;
    run(milliseconds(400));
    auto told = page.readControl("engine");
    while (told.find("silent") != std::string::npos) told = page.readControl("engine");
    EXPECT_EQ(told, R"({"t":"engine","state":"heard"})");

    fEngines["wind"] = nullptr;
    run(seconds(11));
    auto end = page.readFrame();
    while (!end.isEnd()) end = page.readFrame();
    EXPECT_EQ(end.payload,
              "\x03\xf4"
              "the engine is gone");
    Peer early(fAccess);
    EXPECT_TRUE(hasStatus(upgrade(early, "wind"), "503"));
    auto& engine = begin("wind");
    const auto next = join("wind");
    EXPECT_EQ(fHello["kind"].as_string(), "first");
    EXPECT_EQ(engine.take().back(), "first 1 c");
}

TEST_F(ServiceTest, LeavesASessionThatNobodyLooksAt) {
    auto& engine = follow("wind");
    auto page = join("wind");
    page.sendText(R"({"t":"publish","channel":"/up","text":"up"})");
    settle(page);
    engine.take();
    run(seconds(70));
    EXPECT_EQ(report().followed, 1U);
    page.sendFrame(8, "\x03\xe8");
    EXPECT_EQ(page.readClose(), 1000U);
    EXPECT_EQ(page.readAll(), "") << "it has left by the connection's end";
    run(seconds(5));
    EXPECT_EQ(engine.take(), Heard{"last page gone"});
    const auto before = report();
    run(seconds(62));
    EXPECT_TRUE(hasStatus(get("/elsewhere"), "404")) << "the gateway's thread has done its part";
    EXPECT_EQ(report().followed, 0U);
    const auto frames = report().link.framesReceived;
    EXPECT_GE(frames, before.link.framesReceived) << "totals never sink";
    EXPECT_LT(frames, 2 * before.link.framesReceived) << "nor count twice";
}

TEST_F(ServiceTest, ClosesPagesWhenItStops) {
    follow("wind");
    auto page = join("wind");
    fService->stop();
    EXPECT_EQ(page.readClose(), 1001U);
}

TEST(StatusServer, MayGoBeforeItsConnections) {
    namespace asio = boost::asio;
    asio::io_context context;
    auto server =
        std::make_unique<StatusServer>(context, "127.0.0.1", 0, [] { return ServiceReport(); });
    asio::ip::tcp::socket client(context);
    client.connect({asio::ip::address_v4::loopback(), server->port()});
    EXPECT_EQ(context.run_one(), 1U) << "it is accepted, and has said nothing";
    server.reset();
}

TEST_F(ServiceTest, MeasuresWithoutNamingAnybody) {
    auto& engine = follow("wind");
    auto page = join("wind");
    engine.end.down()->text("/fig/1", "secret");
    run(milliseconds(100));
    static_cast<void>(page.readRecords(1));
    fCluster.isThere = false;
    const auto text = metricsText(report());
    const auto has = [&text](std::string_view part) {
        return text.find(part) != std::string::npos;
    };
    for (const char* line :
         {"\nkiroweb_gateway_pages 1\n", "\nkiroweb_gateway_sessions_joined 1\n",
          "\nkiroweb_gateway_texts_sent_total 1\n", "\nkiroweb_gateway_connected 0\n",
          "# TYPE kiroweb_gateway_link_gaps_total counter\n"}) {
        EXPECT_TRUE(has(line)) << line << text;
    }
    for (const auto& secret : {std::string("wind"), std::string("fig"), std::string("secret"),
                               std::string("east"), kToken, secret::sha256Hex(kToken)}) {
        EXPECT_FALSE(has(secret)) << secret;
    }
}

TEST_F(ServiceTest, HoldsPagesBackWhileTheEngineTakesNothing) {
    follow("wind");
    struct : Follower {
        void joined(const Description&) noexcept override {}
        void text(const std::string&, std::string_view) noexcept override {}
        void block(const std::string&, std::shared_ptr<const std::string>,
                   std::unique_ptr<BlockTicket>) noexcept override {}
        void silent(std::chrono::steady_clock::time_point) noexcept override {}
        void heard() noexcept override {}
        void left(std::string_view, Whose) noexcept override {}
    } follower;
    GatewayEnd end(fCluster, {"wind", "west", "http://west/"}, follower, surroundings());
    LinkBus bus;
    bus.connect(end);
    const auto step = [&](int times) {
        for (int i = 0; i < times; ++i) {
            run(milliseconds(50));
            end.tick(fNow);
        }
    };
    step(20);
    ASSERT_TRUE(end.statistics().isJoined);
    const auto said = [&](std::size_t size) {
        auto ticket = std::make_shared<int>();
        const std::weak_ptr<int> seen = ticket;
        bus.deliver("/up", std::make_shared<const std::string>(size, 'x'), std::move(ticket));
        bus.letGo();
        return seen;
    };
    EXPECT_TRUE(said(1000).expired());
    const auto held = said(std::size_t{2} << 20U);
    EXPECT_FALSE(held.expired());
    step(20);
    bus.letGo();
    EXPECT_TRUE(held.expired());
}
