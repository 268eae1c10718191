// The gateway's program without its process: a cluster within this one, an engine's end of a link
// on its other side, pages on raw loopback sockets, and a time that is set.
#include "Service.hpp"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <boost/algorithm/string/replace.hpp>
#include <boost/json.hpp>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BlockWaits.hpp"
#include "EngineEnd.hpp"
#include "Frame.hpp"
#include "LocalCluster.hpp"
#include "Peer.hpp"
#include "Status.hpp"
#include "secret/Sha256.hpp"

using namespace kirolink;
using namespace link_tool;
using gatewaytest::Peer;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

namespace {

const std::string kToken(32, 't');
const std::string kConfiguration = R"({"title":"wind"})";

struct Unheeded final : BlockWait {
    void finished(bool) noexcept override {}
};

/// An engine elsewhere, which notes what it hears.
struct Engine final : EngineHost {
    Engine(Cluster& cluster, const std::string& session, const std::string& configuration,
           const std::string& page, const Surroundings& surroundings)
        : end(
              cluster, settingsOf(session, configuration, page), *this, [] {}, surroundings) {}

    static EngineEnd::Settings settingsOf(const std::string& session,
                                          const std::string& configuration,
                                          const std::string& page) {
        EngineEnd::Settings settings;
        settings.session = session;
        settings.page = page;
        settings.description.configuration = configuration;
        settings.description.maySubscribe = {"/fig/*"};
        settings.description.mayPublish = {"/up"};
        settings.description.blockChannels = {"/*"};
        settings.description.tokenHash = secret::sha256Hex(kToken);
        return settings;
    }
    void text(const std::string& channel, std::string text, std::shared_ptr<const void>) override {
        heard.push_back(channel + " " + text);
    }
    void block(const std::string& channel, std::string_view block) override {
        heard.push_back(channel + " block " + std::string(block));
    }
    void view(View kind, std::uint64_t count, std::string_view client) override {
        const char* const kinds[] = {"first", "further", "return"};
        heard.push_back(kinds[static_cast<std::size_t>(kind)] + (" " + std::to_string(count)) +
                        " " + std::string(client));
    }
    void gatewayFound(const std::string& address) override { heard.push_back(address); }
    void lastPageGone() override { heard.emplace_back("last page gone"); }
    void note(std::string_view, std::string_view) noexcept override {}

    void offer(const std::string& channel, const std::string& block) {
        static_cast<void>(end.down()->block(channel, block, std::make_unique<Unheeded>()));
    }
    std::vector<std::string> take() { return std::exchange(heard, {}); }

    std::vector<std::string> heard;
    EngineEnd end;
};

class ServiceTest : public testing::Test {
  protected:
    ServiceTest() {
        fSettings.name = "east";
        fSettings.port = 0;
        fSettings.sessions = 2;
        fSettings.others = {"http://west.example:9"};
        start();
    }

    void start() {
        fService = nullptr;
        fService = std::make_unique<Service>(fSettings, fCluster, surroundings());
        fAccess.port = fService->port();
    }

    Surroundings surroundings() {
        auto surroundings = Surroundings::real();
        surroundings.now = [this] { return fNow.load(); };
        surroundings.random = [this] { return ++fRandom; };
        return surroundings;
    }
    Engine& begin(const std::string& session, const std::string& configuration = kConfiguration,
                  const std::string& page = {}) {
        auto& engine = fEngines[session];
        engine = nullptr;
        auto elsewhere = surroundings();
        elsewhere.wall = [this, wall = elsewhere.wall] { return wall() + fEngineAhead; };
        engine = std::make_unique<Engine>(fCluster, session, configuration, page, elsewhere);
        run(milliseconds(500));
        return *engine;
    }
    /// Everybody does what is due, and hears what is said.
    void run(milliseconds time) {
        constexpr milliseconds kStep{50};
        for (auto passed = milliseconds(0); passed <= time; passed += kStep) {
            fCluster.deliver();
            for (const auto& [name, engine] : fEngines) {
                if (engine != nullptr && !fIsHung) engine->end.step(fNow);
            }
            fCluster.deliver();
            fNow = fNow.load() + kStep;
            fService->tick(fNow);
        }
    }
    std::string get(const std::string& target, const std::string& host = {}) {
        Peer peer(fAccess);
        peer.send("GET " + target + " HTTP/1.1\r\nHost: " + (host.empty() ? fAccess.host() : host) +
                  "\r\n\r\n");
        return peer.readHead();
    }
    /// The answer to a page of `origin` that opens a socket at `host`.
    std::string upgradeAt(Peer& peer, const std::string& host, const std::string& origin,
                          const std::string& prefix = {}) {
        auto request = gatewaytest::upgradeRequest(fAccess, kToken, prefix);
        boost::replace_first(request, fAccess.origin(), origin);
        boost::replace_first(request, fAccess.host(), host);
        peer.send(request);
        return peer.readHead();
    }
    std::string upgrade(Peer& peer, const std::string& session, std::string_view token = kToken) {
        peer.send(gatewaytest::upgradeRequest(fAccess, token, "/s/" + session));
        return peer.readHead();
    }
    Peer join(const std::string& session) {
        Peer peer(fAccess);
        EXPECT_TRUE(hasStatus(upgrade(peer, session), "101")) << session;
        peer.sendText(R"({"t":"hello","version":1,"client":"c","subscribe":["/fig/1"]})");
        fHello = boost::json::parse(peer.readControl("hello")).as_object();
        settle(peer);  // it is announced behind the hello
        return peer;
    }
    /// The session's engine is there, and followed.
    Engine& follow(const std::string& session, const std::string& configuration = kConfiguration) {
        auto& engine = begin(session, configuration);
        static_cast<void>(get("/s/" + session + "/"));
        run(milliseconds(500));
        return engine;
    }
    /// What the peer said has been acted upon, and has reached the engine.
    void settle(Peer& peer) {
        peer.sendText(R"({"t":"echo","id":1})");
        EXPECT_EQ(peer.readControl("echo"), R"({"t":"echo","id":1})");
        run(milliseconds(100));
    }
    /// For what another thread does: the gateway's own has had something to do in each turn.
    void await(const char* what, const std::function<bool()>& isThere) {
        for (int turn = 0; turn < 20000; ++turn) {
            if (isThere()) return;
            static_cast<void>(get("/elsewhere"));
        }
        throw std::runtime_error(std::string("it never came to pass: ") + what);
    }
    /// What is at "/" of a session with a page of its own.
    std::string ownPage(const std::string& session) {
        Peer peer(fAccess);
        peer.send("GET / HTTP/1.1\r\nHost: " + session +
                  ".plot.example\r\nConnection: close\r\n\r\n");
        return peer.readAll();
    }
    /// It is opened on another thread.
    void awaitPage(const std::string& session) {
        run(seconds(2));
        await("the page is served",
              [&] { return ownPage(session).find("aaa") != std::string::npos; });
    }
    static bool hasStatus(const std::string& head, const std::string& status) {
        return head.starts_with("HTTP/1.1 " + status);
    }
    ServiceReport report() { return fService->report(fNow); }

    std::atomic<std::chrono::steady_clock::time_point> fNow{
        std::chrono::steady_clock::time_point(std::chrono::hours(1))};
    std::atomic<std::uint64_t> fRandom{1};
    link_test::LocalCluster fCluster;
    std::map<std::string, std::unique_ptr<Engine>> fEngines;
    bool fIsHung = false;  ///< all engines are
    seconds fEngineAhead{0};
    Settings fSettings;
    gatewaytest::Access fAccess;
    std::unique_ptr<Service> fService;
    boost::json::object fHello;
};

using Heard = std::vector<std::string>;

}  // namespace

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

TEST_F(ServiceTest, ServesAPageOfItsOwnAtAnOriginOfItsOwnOnly) {
    fSettings.publicAddress = "http://plot.example";
    start();
    const auto page = writePage({{"/", "text/html", "<p>own"}, {"/own.mjs", "text/x", "1"}});
    const std::string host = "wind.plot.example";
    const std::string origin = "http://" + host;
    auto& engine = begin("wind", kConfiguration, page);
    EXPECT_EQ(engine.take(), Heard{origin + "/"});
    EXPECT_EQ(begin("Wind", kConfiguration, page).take(), Heard{}) << "a host is in small letters";
    begin("a_b", kConfiguration, page);
    const auto moved = get("/s/wind/?x=1", "plot.example");
    EXPECT_TRUE(hasStatus(moved, "302")) << moved;
    EXPECT_NE(moved.find("\r\nLocation: " + origin + "/\r\n"), std::string::npos) << moved;
    for (const char* early : {"/", "/kiroweb/wait.js"}) {
        EXPECT_TRUE(hasStatus(get(early, host), "200")) << early;
    }
    EXPECT_TRUE(hasStatus(get("/own.mjs", host), "404")) << "it has not come yet";
    while (!hasStatus(get("/own.mjs", host), "200")) run(milliseconds(50));
    for (const auto& [at, target, status] :
         std::vector<std::array<const char*, 3>>{{"wind.plot.example", "/", "200"},
                                                 {"wind.plot.example", "/own.mjs", "200"},
                                                 {"wind.plot.example", "/kiroweb/wait.js", "200"},
                                                 {"wind.plot.example", "/s/wind/", "404"},
                                                 {"Wind.plot.example", "/", "403"},
                                                 {"wind.plot.example:80", "/", "403"},
                                                 {"sea.plot.example", "/", "403"},
                                                 {"a.wind.plot.example", "/", "403"},
                                                 {"plot.example", "/s/wind/own.mjs", "404"},
                                                 {"Wind.plot.example", "/", "403"},
                                                 {"a_b.plot.example", "/", "403"}}) {
        EXPECT_TRUE(hasStatus(get(target, at), status)) << at << target << get(target, at);
    }
    for (const auto& from :
         {"http://plot.example", "http://sea.plot.example", "http://west.example:9",
          "https://wind.plot.example", "http://WIND.plot.example"}) {
        Peer peer(fAccess);
        EXPECT_TRUE(hasStatus(upgradeAt(peer, host, from), "403")) << from;
    }
    Peer plain(fAccess);
    EXPECT_TRUE(
        hasStatus(upgradeAt(plain, "plot.example", "http://plot.example", "/s/wind"), "404"));
    for (const char* session : {"/s/Wind", "/s/a_b"}) {
        Peer peer(fAccess);
        EXPECT_TRUE(
            hasStatus(upgradeAt(peer, "plot.example", "http://plot.example", session), "503"));
    }
    for (const auto& from : {origin, std::string("http://wind.west.example:9")}) {
        Peer peer(fAccess);
        EXPECT_TRUE(hasStatus(upgradeAt(peer, host, from), "101")) << from;
        peer.sendText(R"({"t":"hello","version":1,"subscribe":[]})");
        const auto hello = boost::json::parse(peer.readControl("hello"));
        EXPECT_EQ(boost::json::serialize(hello.at("gateways")),
                  R"(["ws://wind.west.example:9/kiroweb"])");
    }
    EXPECT_GE(report().held, page.size());
    // Without one of its own all is as ever.
    follow("sea");
    EXPECT_TRUE(hasStatus(get("/s/sea/"), "200"));
}

TEST_F(ServiceTest, LetsPagesInWhileAPageOfTheirOwnIsFetched) {
    fSettings.publicAddress = "http://plot.example";
    fSettings.memory = fSettings.allMemory = std::size_t{4} << 20U;
    start();
    const auto page = writePage({{"/", "text/html", std::string(3 << 19U, 'a')}});
    std::map<std::string, int> passes{{"sea", 1000}};  // questions for parts that arrive
    fCluster.loses = [&](std::string_view subject, std::string_view bytes) {
        const auto frame = readFrame(bytes);
        if (!frame || !std::holds_alternative<frame::Fetch>(frame->body)) return false;
        const auto name = subject.substr(subject.find('.') + 1);
        return --passes[std::string(name.substr(0, name.find('.')))] < 0;
    };
    const auto open = [&](const std::string& session) {
        auto& engine = begin(session, kConfiguration, page);
        EXPECT_THAT(ownPage(session), HasSubstr("has not come yet"));
        run(milliseconds(500));
        return &engine;
    };
    auto* engine = open("wind");
    Peer peer(fAccess);
    EXPECT_TRUE(hasStatus(upgradeAt(peer, "wind.plot.example", "http://wind.plot.example"), "101"));
    peer.sendText(R"({"t":"hello","version":1,"subscribe":["/fig/1"]})");
    static_cast<void>(peer.readControl("hello"));
    settle(peer);
    engine->end.down()->text("/fig/1", "down");
    run(milliseconds(100));
    EXPECT_EQ(peer.readRecords(1).at(0).text, "down") << "it may have its files from elsewhere";
    // What one claims and does not send takes no room from others: there is some for 2 MiB.
    open("sea");
    awaitPage("sea");
    EXPECT_GE(report().held, page.size());
    EXPECT_LT(report().held, page.size() + 4096);
    peer.sendFrame(8, "\x03\xe8");
    EXPECT_EQ(peer.readClose(), 1000U);
    fEngines["sea"] = nullptr;
    run(seconds(80));
    EXPECT_TRUE(hasStatus(get("/elsewhere"), "404")) << "the gateway's thread has done its part";
    EXPECT_EQ(report().followed, 0U) << "nothing came of it for a minute";

    // It may come slowly: 25 parts.
    open("wind");
    for (int part = 0; part < 25; ++part) {
        ASSERT_EQ(report().followed, 1U) << part;
        passes["wind"] = 1;
        run(seconds(5));
    }
    awaitPage("wind");
    fEngines["wind"] = nullptr;
    run(seconds(80));
    static_cast<void>(get("/elsewhere"));
    // But not for ever.
    open("fog");
    seconds took{0};
    for (; report().followed == 1; took += seconds(30)) {
        passes["fog"] = 1;
        run(seconds(30));
        static_cast<void>(get("/elsewhere"));
        ASSERT_LT(took, std::chrono::minutes(20));
    }
    EXPECT_GE(took, std::chrono::minutes(9));
    EXPECT_LE(took, std::chrono::minutes(11));
}

TEST_F(ServiceTest, RefusesAPageThatIsNotWhatWasTold) {
    fSettings.publicAddress = "http://plot.example";
    const auto page = writePage({{"/", "text/html", std::string(1 << 20U, 'a')}});
    const auto refused = [&] {
        begin("wind", kConfiguration, page);
        EXPECT_TRUE(hasStatus(get("/", "wind.plot.example"), "200"));
        run(seconds(3));
        EXPECT_TRUE(hasStatus(get("/elsewhere"), "404"))
            << "the gateway's thread has done its part";
        return report().followed == 0;
    };
    fSettings.memory = 1 << 20U;
    start();
    EXPECT_TRUE(refused()) << "it takes all that there is for a session";
    fSettings.memory = std::size_t{4} << 20U;
    fSettings.allMemory = 1 << 20U;
    start();
    EXPECT_TRUE(refused()) << "it takes more than there is for pages";
    fSettings.allMemory = std::size_t{4} << 20U;
    start();
    EXPECT_FALSE(refused());
    awaitPage("wind");
    begin("sea", kConfiguration, page);
    static_cast<void>(get("/", "sea.plot.example"));
    run(seconds(3));
    static_cast<void>(get("/elsewhere"));
    EXPECT_EQ(report().followed, 1U) << "one that is served takes half of the room";
    fEngines["sea"] = nullptr;
    start();
    const auto liar = fCluster.subscribe(
        "kiroweb.wind.from.east", [this](std::string_view, std::string_view bytes) {
            const auto frame = readFrame(bytes);
            if (!frame || !std::holds_alternative<frame::Fetch>(frame->body)) return;
            const std::string other(kPagePart, 'b');
            auto part = writeFrame(frame->header, frame::Part{other});
            fCluster.publish("kiroweb.wind.to.east",
                             std::make_shared<const std::string>(std::move(part)));
        });
    if (!refused()) {
        await("it is refused", [this] { return report().joined == 0; });  // on another thread
        run(seconds(3));
        static_cast<void>(get("/elsewhere"));
    }
    EXPECT_EQ(report().followed, 0U) << "it has another hash";
    fSettings.pageSize = 0;
    start();
    begin("wind", kConfiguration, page);
    EXPECT_TRUE(hasStatus(get("/", "wind.plot.example"), "403"));
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
