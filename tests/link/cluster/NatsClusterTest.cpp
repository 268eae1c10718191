#include "NatsCluster.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>

#include "support/Nodes.hpp"

namespace kirolink {
namespace {

using namespace std::chrono_literals;
using test::Nodes;

/// The lines that a cluster logs, and messages, in order; a test waits for what it expects.
class Lines {
  public:
    void add(std::string_view line) {
        const std::lock_guard lock(fMutex);
        fLines.emplace_back(line);
        fAdded.notify_all();
    }
    /// Waits until there are `count` lines that hold `part`, and returns the last of them.
    std::string await(const std::string& part, std::size_t count = 1) {
        std::unique_lock lock(fMutex);
        std::string found;
        fAdded.wait(lock, [&] { return this->count(part, found) >= count; });
        return found;
    }
    bool awaitFor(const std::string& part, std::chrono::milliseconds patience) {
        std::unique_lock lock(fMutex);
        std::string found;
        return fAdded.wait_for(lock, patience, [&] { return this->count(part, found) > 0; });
    }
    std::size_t count(const std::string& part) {
        const std::lock_guard lock(fMutex);
        std::string ignored;
        return count(part, ignored);
    }

    /// Returns the last words of all lines that hold `part`.
    std::vector<std::string> all(const std::string& part) {
        const std::lock_guard lock(fMutex);
        std::vector<std::string> found;
        for (const auto& line : fLines) {
            if (line.find(part) == std::string::npos) continue;
            found.push_back(line.substr(line.rfind(' ') + 1));
        }
        return found;
    }

  private:
    std::size_t count(const std::string& part, std::string& last) const {
        std::size_t found = 0;
        for (const auto& line : fLines) {
            if (line.find(part) == std::string::npos) continue;
            last = line;
            ++found;
        }
        return found;
    }
    std::mutex fMutex;
    std::condition_variable fAdded;
    std::vector<std::string> fLines;
};

Cluster::Bytes bytesOf(std::string text) {
    return std::make_shared<const std::string>(std::move(text));
}

/// Somebody at the cluster, with its log.
struct Peer {
    Peer(const Nodes& nodes, const std::string& user, const std::vector<std::size_t>& order)
        : Peer(optionsFor(nodes, user, order)) {}
    explicit Peer(NatsOptions options) {
        options.log = [this](std::string_view line) { log.add(line); };
        cluster = connectNats(std::move(options));
    }
    static NatsOptions optionsFor(const Nodes& nodes, const std::string& user,
                                  const std::vector<std::size_t>& order) {
        NatsOptions options;
        for (const auto node : order) options.servers.push_back(nodes.server(node));
        options.credentialsFile = nodes.folder() + "/" + user + "/credentials";
        options.caFile = nodes.folder() + "/ca.pem";
        options.inboxPrefix = "_INBOX." + user;
        return options;
    }
    /// What is heard goes to `heard`.
    void hear(const std::string& subject) {
        subscriptions.push_back(
            cluster->subscribe(subject, [this](std::string_view on, std::string_view bytes) {
                heard.add(std::string(on) + " " + std::string(bytes));
            }));
    }
    Lines log;
    Lines heard;
    std::unique_ptr<Cluster> cluster;
    std::vector<std::unique_ptr<Cluster::Subscription>> subscriptions;
};

/// Sends again and again, as those do who use a cluster, until it is heard.
void sendUntilHeard(Peer& from, Peer& to, const std::string& subject, const std::string& text) {
    do {
        from.cluster->publish(subject, bytesOf(text));
    } while (!to.heard.awaitFor(text, 20ms));
}

class NatsClusterTest : public testing::Test {
  protected:
    NatsClusterTest() {
        for (const auto* name : {"alpha", "beta"}) nodes.addUser("session", name);
        nodes.addUser("gateway", "g1");
    }
    void startAll() {
        for (std::size_t i = 0; i < 3; ++i) nodes.start(i);
    }
    Nodes nodes{3};
};

TEST_F(NatsClusterTest, carriesMessagesInOrderOverItsNodes) {
    startAll();
    Peer engine(nodes, "session-alpha", {0});
    Peer gateway(nodes, "gateway-g1", {1});
    gateway.hear("kiroweb.*.down");
    sendUntilHeard(engine, gateway, "kiroweb.alpha.down", "first");
    std::vector<std::string> sent;
    for (int i = 0; i < 300; ++i) {
        sent.push_back(std::to_string(i) + std::string(1 + static_cast<std::size_t>(i) * 200, 'x'));
        ASSERT_TRUE(engine.cluster->publish("kiroweb.alpha.down", bytesOf(sent.back())));
    }
    gateway.heard.await("299x");
    EXPECT_TRUE(gateway.heard.all("x") == sent);
}

TEST_F(NatsClusterTest, connectsWhenTheClusterComesAndSaysSoOnce) {
    Peer engine(nodes, "session-alpha", {0, 1});
    const auto line = engine.log.await("no node");
    EXPECT_NE(line.find(nodes.server(0)), std::string::npos) << line;
    EXPECT_NE(line.find(nodes.server(1)), std::string::npos) << line;
    EXPECT_FALSE(engine.cluster->isConnected());
    EXPECT_FALSE(engine.cluster->publish("kiroweb.alpha.down", bytesOf("lost")));
    nodes.start(1);
    engine.log.await("connected to the cluster's node " + nodes.server(1));
    EXPECT_EQ(engine.log.count("no node"), 1U);
}

TEST_F(NatsClusterTest, leavesANodeThatDiesOrHangsForTheNext) {
    startAll();
    auto options = Peer::optionsFor(nodes, "session-alpha", {0, 1, 2});
    options.silence = 500ms;
    Peer engine(options);
    Peer gateway(nodes, "gateway-g1", {2});
    engine.hear("kiroweb.alpha.from.*");
    sendUntilHeard(gateway, engine, "kiroweb.alpha.from.g1", "before");
    nodes.kill(0);
    engine.log.await("node " + nodes.server(1));
    sendUntilHeard(gateway, engine, "kiroweb.alpha.from.g1", "after the death");
    nodes.hang(1);
    // More than the kernel takes for it, so that a write waits.
    const auto mebibyte = bytesOf(std::string(1U << 20U, 'x'));
    for (int i = 0; i < 32; ++i) engine.cluster->publish("kiroweb.alpha.down", mebibyte);
    engine.log.await("it hangs");
    sendUntilHeard(gateway, engine, "kiroweb.alpha.from.g1", "after the hanging");
}

TEST_F(NatsClusterTest, boundsWhatWaitsWhileANodeTakesNothing) {
    startAll();
    auto options = Peer::optionsFor(nodes, "session-alpha", {0});
    options.queueSize = 4U << 20U;
    options.silence = 10s;
    Peer engine(options);
    engine.log.await("connected");
    nodes.hang(0);
    const auto mebibyte = bytesOf(std::string(1U << 20U, 'x'));
    std::size_t taken = 0;
    while (taken < 1000 && engine.cluster->publish("kiroweb.alpha.down", mebibyte)) ++taken;
    EXPECT_GE(taken, 3U);
    EXPECT_LT(taken, 1000U);
}

TEST_F(NatsClusterTest, refusesForeignSubjectsAndSaysSoOnce) {
    startAll();
    Peer hostile(nodes, "session-beta", {0});
    Peer engine(nodes, "session-alpha", {0});
    Peer gateway(nodes, "gateway-g1", {0});
    for (const auto* subject : {"kiroweb.alpha.down", "kiroweb.alpha.>", "kiroweb.*.from.*", ">"}) {
        hostile.hear(subject);
        hostile.log.await("Subscription to \"" + std::string(subject));
    }
    gateway.hear("kiroweb.*.down");
    engine.hear("kiroweb.alpha.from.*");
    sendUntilHeard(engine, gateway, "kiroweb.alpha.down", "secret");
    sendUntilHeard(gateway, engine, "kiroweb.alpha.from.g1", "secret");
    for (int i = 0; i < 3; ++i) {
        hostile.cluster->publish("kiroweb.alpha.down", bytesOf("forged"));
        hostile.cluster->publish("kiroweb.alpha.from.g1", bytesOf("forged"));
        hostile.cluster->publish("kiroweb.alpha.to.g1", bytesOf("forged"));
    }
    sendUntilHeard(hostile, gateway, "kiroweb.beta.down", "own");
    hostile.log.await("Publish to \"kiroweb.alpha.to.g1");
    EXPECT_EQ(hostile.log.count("Publish to \"kiroweb.alpha.down"), 1U);
    sendUntilHeard(engine, gateway, "kiroweb.alpha.down", "more");
    sendUntilHeard(gateway, engine, "kiroweb.alpha.from.g1", "more");
    EXPECT_EQ(hostile.heard.count(""), 0U);
    EXPECT_EQ(gateway.heard.count("forged") + engine.heard.count("forged"), 0U);
}

TEST_F(NatsClusterTest, saysWhyItIsRefused) {
    startAll();
    Nodes others(1);
    others.addUser("session", "alpha");
    Peer wrongPassword([&] {
        auto options = Peer::optionsFor(nodes, "session-alpha", {0});
        options.credentialsFile = others.folder() + "/session-alpha/credentials";
        return options;
    }());
    wrongPassword.log.await("Authorization Violation");
    Peer wrongCa([&] {
        auto options = Peer::optionsFor(nodes, "session-alpha", {0});
        options.caFile = others.folder() + "/ca.pem";
        return options;
    }());
    wrongCa.log.await("unable to get local issuer certificate");
    Peer wrongHost([&] {
        auto options = Peer::optionsFor(nodes, "session-alpha", {0});
        options.servers = {"localhost" + nodes.server(0).substr(nodes.server(0).find(':'))};
        return options;
    }());
    wrongHost.log.await("ostname mismatch");
}

TEST_F(NatsClusterTest, endsASubscriptionBetweenTwoCalls) {
    startAll();
    Peer engine(nodes, "session-alpha", {0});
    Peer gateway(nodes, "gateway-g1", {0});
    std::promise<void> entered;
    std::promise<void> leave;
    bool isOver = false;
    auto held = gateway.cluster->subscribe("kiroweb.alpha.down", [&](auto, auto) {
        entered.set_value();
        leave.get_future().wait();
        isOver = true;
    });
    std::unique_ptr<Cluster::Subscription> own;
    own = gateway.cluster->subscribe("kiroweb.alpha.beat", [&](auto, auto bytes) {
        if (bytes == "end") own.reset();
    });
    gateway.hear("kiroweb.alpha.beat");
    sendUntilHeard(engine, gateway, "kiroweb.alpha.beat", "begun");
    engine.cluster->publish("kiroweb.alpha.down", bytesOf("once"));
    entered.get_future().wait();
    auto ending = std::async(std::launch::async, [&] {
        held.reset();
        return isOver;
    });
    EXPECT_EQ(ending.wait_for(50ms), std::future_status::timeout);
    leave.set_value();
    EXPECT_TRUE(ending.get());
    engine.cluster->publish("kiroweb.alpha.down", bytesOf("twice"));
    engine.cluster->publish("kiroweb.alpha.beat", bytesOf("end"));
    sendUntilHeard(engine, gateway, "kiroweb.alpha.beat", "still there");
}

TEST_F(NatsClusterTest, refusesOptionsThatCannotBeRight) {
    const auto right = Peer::optionsFor(nodes, "session-alpha", {0});
    const auto openToAll = nodes.folder() + "/open";
    std::filesystem::copy(right.credentialsFile, openToAll);
    chmod(openToAll.c_str(), 0640);
    const auto oneLine = nodes.folder() + "/one";
    std::ofstream(oneLine) << "session-alpha\n";
    chmod(oneLine.c_str(), 0600);
    const std::vector<std::pair<std::string, std::function<void(NatsOptions&)>>> cases{
        {"no server", [](auto& options) { options.servers.clear(); }},
        {"not a server's", [](auto& options) { options.servers = {"a:1,b:2"}; }},
        {"CA's file is missing", [](auto& options) { options.caFile.clear(); }},
        {"CA's file is missing",
         [](auto& options) {
             options.caFile.clear();
             options.isPlainAllowed = true;
             options.servers = {"127.0.0.1:4222", "127.example:4222"};
         }},
        {"cannot read", [](auto& options) { options.caFile += ".not"; }},
        {"cannot read", [](auto& options) { options.credentialsFile += ".not"; }},
        {"others than its owner", [&](auto& options) { options.credentialsFile = openToAll; }},
        {"two lines", [&](auto& options) { options.credentialsFile = oneLine; }},
    };
    for (const auto& [text, change] : cases) {
        auto options = right;
        change(options);
        try {
            static_cast<void>(connectNats(options));
            ADD_FAILURE() << text;
        } catch (const std::invalid_argument& error) {
            EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
        }
    }
}

}  // namespace
}  // namespace kirolink
