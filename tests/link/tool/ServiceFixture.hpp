// The gateway's program without its process: a cluster within this one, an engine's end of a link
// on its other side, pages on raw loopback sockets, and a time that is set.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <boost/algorithm/string/replace.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
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
#include "LocalCluster.hpp"
#include "Peer.hpp"
#include "Service.hpp"
#include "secret/Sha256.hpp"

namespace servicetest {

using kirolink::EngineEnd;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Heard = std::vector<std::string>;

inline const std::string kToken(32, 't');
inline const std::string kConfiguration = R"({"title":"wind"})";

struct Unheeded final : kirolink::BlockWait {
    void finished(bool) noexcept override {}
};

/// An engine elsewhere, which notes what it hears.
struct Engine final : kirolink::EngineHost {
    Engine(kirolink::Cluster& cluster, const std::string& session, const std::string& configuration,
           const std::string& page, const kirolink::Surroundings& surroundings)
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

    void offer(const std::string& channel, const std::string& block) const {
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
        fService = std::make_unique<link_tool::Service>(fSettings, fCluster, surroundings());
        fAccess.port = fService->port();
    }

    kirolink::Surroundings surroundings() {
        auto surroundings = kirolink::Surroundings::real();
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
        gatewaytest::Peer peer(fAccess);
        peer.send("GET " + target + " HTTP/1.1\r\nHost: " + (host.empty() ? fAccess.host() : host) +
                  "\r\n\r\n");
        return peer.readHead();
    }
    /// The answer to a page of `origin` that opens a socket at `host`.
    std::string upgradeAt(gatewaytest::Peer& peer, const std::string& host,
                          const std::string& origin, const std::string& prefix = {}) {
        auto request = gatewaytest::upgradeRequest(fAccess, kToken, prefix);
        boost::replace_first(request, fAccess.origin(), origin);
        boost::replace_first(request, fAccess.host(), host);
        peer.send(request);
        return peer.readHead();
    }
    std::string upgrade(gatewaytest::Peer& peer, const std::string& session,
                        std::string_view token = kToken) {
        peer.send(gatewaytest::upgradeRequest(fAccess, token, "/s/" + session));
        return peer.readHead();
    }
    gatewaytest::Peer join(const std::string& session) {
        gatewaytest::Peer peer(fAccess);
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
    void settle(gatewaytest::Peer& peer) {
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
    static bool hasStatus(const std::string& head, const std::string& status) {
        return head.starts_with("HTTP/1.1 " + status);
    }
    link_tool::ServiceReport report() { return fService->report(fNow); }

    std::atomic<std::chrono::steady_clock::time_point> fNow{
        std::chrono::steady_clock::time_point(std::chrono::hours(1))};
    std::atomic<std::uint64_t> fRandom{1};
    link_test::LocalCluster fCluster;
    std::map<std::string, std::unique_ptr<Engine>> fEngines;
    bool fIsHung = false;  ///< all engines are
    seconds fEngineAhead{0};
    link_tool::Settings fSettings;
    gatewaytest::Access fAccess;
    std::unique_ptr<link_tool::Service> fService;
    boost::json::object fHello;
};

}  // namespace servicetest
