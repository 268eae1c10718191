// Sessions whose engines bring a page of their own, each at an origin of its own.
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "Frame.hpp"
#include "ServiceFixture.hpp"

using namespace kirolink;
using gatewaytest::Peer;
using servicetest::Heard;
using servicetest::kConfiguration;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

namespace {

class OwnPageTest : public servicetest::ServiceTest {
  protected:
    OwnPageTest() { fSettings.publicAddress = "http://plot.example"; }

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
};

}  // namespace

TEST_F(OwnPageTest, ServesAPageOfItsOwnAtAnOriginOfItsOwnOnly) {
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

TEST_F(OwnPageTest, LetsPagesInWhileAPageOfTheirOwnIsFetched) {
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

TEST_F(OwnPageTest, RefusesAPageThatIsNotWhatWasTold) {
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
