// Several sites on one server: engines that know nothing of each other, each with its own pages.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/json.hpp>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Collector.hpp"
#include "Peer.hpp"
#include "Server.hpp"
#include "secret/Sha256.hpp"

using namespace kirogateway;
using gatewaytest::Peer;

namespace {

/// An engine as its site's pages reach it: notes what it is told.
class NotedBus final : public Bus, public relay::TransportLink {
  public:
    relay::TransportLink& texts() noexcept override { return *this; }
    void deliver(const std::string& channel, relay::Publication::Text text,
                 std::shared_ptr<const void>) override {
        fIsFull = *text == "the last for now";
        fEvents.add(channel + " " + *text);
    }
    bool send(const std::string& channel, std::string_view block) override {
        fEvents.add(channel + " block " + std::string(block));
        return true;
    }
    void announce(wire::ViewKind kind, const View::Identity& view) override {
        fEvents.add(std::string(wire::nameOf(kind)) + " " + std::to_string(view.count));
    }
    void pages(std::size_t count) noexcept override {
        fEvents.add("pages " + std::to_string(count));
    }
    bool hasRoom() const noexcept override {
        ++fAsked;
        return !fIsFull;
    }
    std::string take() { return fEvents.take(); }

    std::atomic<bool> fIsFull{false};
    mutable std::atomic<int> fAsked{0};

  private:
    support::Collector<std::string> fEvents;
};

/// A block of an engine elsewhere, and what becomes of it.
class NotedTransfer final : public Transfer {
  public:
    NotedTransfer(std::string_view bytes, support::Collector<Outcome>& outcomes)
        : Transfer(bytes, std::make_shared<Counters>()), fOutcomes(outcomes) {}

  private:
    void finish(Outcome outcome) override { fOutcomes.add(outcome); }

    support::Collector<Outcome>& fOutcomes;
};

class SitesTest : public testing::Test {
  protected:
    SitesTest() {
        fOptions.maySubscribe = {"/fig/*"};
        fOptions.mayPublish = {"/up"};
    }
    ~SitesTest() override {
        if (fServer) fServer->stop();
    }

    void start() {
        auto context = std::make_shared<Context>(fOptions);
        fServer = std::make_unique<Server>(context, fWakeup);
        fAccess.port = fServer->port();
        auto root = makeSite("", nullptr);
        fServer->start(Sites(root, [this](Sites&, std::string_view prefix) -> Sites::Found {
            ++fMade;
            if (prefix != "/s/a" && prefix != "/s/b") return {};
            return {makeSite(std::string(prefix), nullptr)};
        }));
    }
    /// One that lets pages in with `secrets`, or nobody yet.
    std::shared_ptr<Site> makeSite(const std::string& prefix, std::shared_ptr<Secrets> secrets,
                                   std::uint64_t viewsBefore = 0) {
        auto site = std::make_shared<Site>(
            prefix, std::make_shared<Context>(fOptions), fWakeup, [] {}, viewsBefore);
        const auto assets = prefix.empty() ? std::make_shared<const AssetTable>(Files()) : fAssets;
        site->access = std::make_unique<AccessPolicy>(fOptions, fServer->port(),
                                                      Entrance{assets, std::move(secrets)});
        site->inbound.connect(fBuses[prefix]);
        return site;
    }
    /// The engine of `prefix` is there, with the token "token of PREFIX", of which the hash is
    /// known.
    std::shared_ptr<Site> open(const std::string& prefix, std::uint64_t viewsBefore = 0) {
        const secret::HashedToken token{secret::sha256Hex(tokenOf(prefix)), secret::sha256Hex};
        auto site = makeSite(prefix, std::make_shared<Secrets>(token), viewsBefore);
        fServer->post(
            [site](Sites& sites) { sites.put(site, "another engine", wire::CloseCode::kStopped); });
        return site;
    }
    static std::string tokenOf(const std::string& prefix) {
        return "token-of-" + prefix.substr(prefix.size() - 1);
    }
    Peer ask(const std::string& request) const {
        Peer peer(fAccess);
        peer.send(request);
        return peer;
    }
    std::string get(const std::string& target) const {
        return ask("GET " + target + " HTTP/1.1\r\nHost: " + fAccess.host() + "\r\n\r\n")
            .readHead();
    }
    std::string upgrade(const std::string& prefix) const {
        return upgradeRequest(fAccess, tokenOf(prefix), prefix);
    }
    Peer join(const std::string& prefix, const std::string& kind = "first") {
        auto peer = ask(upgrade(prefix));
        EXPECT_TRUE(peer.readHead().starts_with("HTTP/1.1 101")) << prefix;
        peer.sendText(R"({"t":"hello","version":1,"subscribe":["/fig/*"],"limits":{"block":9}})");
        const auto hello = boost::json::parse(peer.readControl("hello")).as_object();
        EXPECT_EQ(hello.at("kind").as_string(), kind);
        return peer;
    }

    Options fOptions;
    std::shared_ptr<Wakeup> fWakeup = std::make_shared<Wakeup>();
    using Files = std::vector<Asset>;

    std::shared_ptr<const AssetTable> fAssets =
        std::make_shared<const AssetTable>(Files{{"/", "text/html; charset=utf-8", "<p>page"}});
    std::map<std::string, NotedBus> fBuses;
    gatewaytest::Access fAccess;
    std::unique_ptr<Server> fServer;
    std::atomic<int> fMade{0};  ///< sites that were asked for
};

bool hasStatus(const std::string& head, const std::string& status) {
    return head.starts_with("HTTP/1.1 " + status);
}

}  // namespace

TEST(SitePrefix, IsOneNameAndNothingElse) {
    const std::string longest(64, 'n');
    const std::pair<std::string, std::string> table[] = {
        {"/s/run-7_B/", "/s/run-7_B"},
        {"/s/run/kiroweb?x/y", "/s/run"},
        {"/s/" + longest + "/", "/s/" + longest},
        {"/s/" + longest + "n/", ""},
        {"/s/run", "/s/run"},
        {"/s/run?/x", "/s/run"},
        {"/s/" + longest + "n", ""},
        {"/s/", ""},
        {"/s//", ""},
        {"/s/../", ""},
        {"/s/%61/", ""},
        {"/t/a/", ""},
        {"", ""},
    };
    for (const auto& [target, prefix] : table) EXPECT_EQ(sitePrefix(target), prefix) << target;
}

TEST_F(SitesTest, KeepTheirPagesApart) {
    start();
    const std::map<std::string, std::shared_ptr<Site>> sites{{"/s/a", open("/s/a")},
                                                             {"/s/b", open("/s/b")}};
    std::map<std::string, Peer> pages;
    for (const auto& [prefix, site] : sites) pages.emplace(prefix, join(prefix));
    for (const auto& [prefix, site] : sites) {
        const std::string channel = "/fig/1";
        site->fanout->messagePublished(relay::Publication(channel, "from " + prefix));
        auto& page = pages.at(prefix);
        EXPECT_EQ(page.readRecords(1).at(0).text, "from " + prefix);
        page.sendText(R"({"t":"publish","channel":"/up","text":"from )" + prefix + R"("})");
        page.sendText(R"({"t":"channel","number":1,"name":"/up"})");
        page.sendFrame(2, std::string("\1\1\1", 3) + std::string(13, '\0') + "bytes");
        auto& bus = fBuses[prefix];
        for (const auto& expected : {"pages 1", "first 1"}) EXPECT_EQ(bus.take(), expected);
        EXPECT_EQ(bus.take(), "/up from " + prefix);
        EXPECT_EQ(bus.take(), "/up block bytes");
        page.sendFrame(8, "\x03\xe8");
        EXPECT_EQ(bus.take(), "pages 0");
    }
    EXPECT_TRUE(hasStatus(ask(upgradeRequest(fAccess, tokenOf("/s/a"), "/s/b")).readHead(), "403"));
    const auto moved = get("/s/a?x=/y");
    EXPECT_TRUE(hasStatus(moved, "308")) << moved;
    EXPECT_NE(moved.find("\r\nLocation: /s/a/?x=/y\r\n"), std::string::npos) << moved;
    for (const char* target : {"/s/c/", "/s/c", "/", "/s/a/s/b", "?x"}) {
        EXPECT_TRUE(hasStatus(get(target), "404")) << target;
    }
}

TEST_F(SitesTest, ServeTheirPageBeforeTheEngineIsReached) {
    start();
    const std::string later = "Retry-After: 1\r\n";
    const auto head = get("/s/a/");
    EXPECT_TRUE(hasStatus(head, "200") && head.find(later) != std::string::npos) << head;
    const auto refusal = ask(upgrade("/s/a")).readHead();
    EXPECT_TRUE(hasStatus(refusal, "503") && refusal.find(later) != std::string::npos) << refusal;
    open("/s/a");
    EXPECT_EQ(get("/s/a/").find(later), std::string::npos);
    auto page = join("/s/a");
    page.sendText(R"({"t":"echo","id":1,"time":true})");
    const auto clocks = boost::json::parse(page.readControl("echo")).as_object();
    EXPECT_GT(clocks.at("time").as_int64(), 1'000'000'000'000'000) << "microseconds since 1970";
    EXPECT_EQ(clocks.at("engineAhead"), 0) << "one process has one clock";
    EXPECT_EQ(clocks.at("uncertainty"), 0);
}

TEST_F(SitesTest, AreNotMadeForAForeignHost) {
    start();
    const auto head = ask("GET /s/a/ HTTP/1.1\r\nHost: elsewhere.example\r\n\r\n").readHead();
    EXPECT_TRUE(hasStatus(head, "403")) << head;
    EXPECT_EQ(fMade, 0);
}

TEST_F(SitesTest, ReadNoMoreWhileTheEngineTakesNothing) {
    start();
    open("/s/a");
    auto page = join("/s/a");
    auto& bus = fBuses["/s/a"];
    for (const char* text : {"the last for now", "more"}) {
        page.sendText(R"({"t":"publish","channel":"/up","text":")" + std::string(text) + "\"}");
    }
    for (const char* told : {"pages 1", "first 1", "/up the last for now"}) {
        EXPECT_EQ(bus.take(), told);
    }
    const int asked = bus.fAsked;
    while (bus.fAsked < asked + 3) std::this_thread::yield();
    EXPECT_TRUE(bus.fIsFull) << "nothing came after the last";
    bus.fIsFull = false;
    EXPECT_EQ(bus.take(), "/up more");
}

TEST_F(SitesTest, HaveSoManyConnectionsTogether) {
    fOptions.limits.connections = 2;
    start();
    for (const char* prefix : {"/s/a", "/s/b"}) open(prefix);
    const auto page = join("/s/a");
    const auto other = join("/s/b");
    EXPECT_TRUE(hasStatus(get("/s/b/"), "503"));
}

TEST_F(SitesTest, EndTheirViewsBeforeTheyGo) {
    start();
    auto site = open("/s/a");
    auto page = join("/s/a");
    fServer->post([](Sites& sites) { sites.at("/s/a")->views->tell(R"({"t":"x"})"); });
    EXPECT_EQ(page.readControl("x"), R"({"t":"x"})");

    support::Collector<Transfer::Outcome> outcomes;
    const auto offer = [&](Site& to, const char* channel, std::string_view block) {
        to.fanout->offer(channel, std::make_shared<NotedTransfer>(block, outcomes));
    };
    offer(*site, "/fig/1", "12345678");
    page.readBinary();
    page.sendText(R"({"t":"block","transfer":1,"ok":true})");
    EXPECT_EQ(outcomes.take(), Transfer::Outcome::kDelivered);
    offer(*site, "/fig/1", "larger than that");
    EXPECT_EQ(outcomes.take(), Transfer::Outcome::kRefused);
    offer(*site, "/elsewhere", "1");
    EXPECT_EQ(outcomes.take(), Transfer::Outcome::kNobody);
    offer(*site, "/fig/1", "12345678");
    site = open("/s/a", 1);
    EXPECT_EQ(outcomes.take(), Transfer::Outcome::kRefused) << "its page went";
    auto end = page.readFrame();
    while (!end.isEnd()) end = page.readFrame();
    EXPECT_EQ(end.payload,
              "\x03\xe9"
              "another engine");
    page.cut();
    auto next = join("/s/a", "further");
    fServer->post([](Sites& sites) { sites.remove("/s/a", "nobody asked for it"); });
    EXPECT_EQ(next.readClose(), 1001U);
    offer(*site, "/fig/1", "12345678");
    EXPECT_EQ(outcomes.take(), Transfer::Outcome::kNobody);
}
