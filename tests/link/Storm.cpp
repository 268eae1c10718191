#include "Storm.hpp"

#include <gtest/gtest.h>

#include "World.hpp"

namespace link_test {
namespace {

using namespace std::chrono_literals;

/// "CHANNEL LABEL NUMBER ...": the numbers of one label follow each other.
struct Sequence {
    std::map<std::string, std::uint64_t> last;
    void expectNext(const std::string& line, const char* where) {
        const auto number = line.find('#');
        ASSERT_NE(number, std::string::npos) << line.substr(0, 80);
        const auto label =
            line.substr(line.rfind(' ', number) + 1, number - line.rfind(' ', number) - 1);
        const auto value = std::stoull(line.substr(number + 1));
        const auto known = last.find(label);
        if (known != last.end()) {
            EXPECT_EQ(value, known->second + 1) << where << " " << label;
        }
        last[label] = value;
    }
};

class Storm {
  public:
    Storm(std::uint64_t seed, OnMessage onMessage) : fWorld(seed) {
        auto& network = fWorld.network;
        network.onMessage = std::move(onMessage);
        network.weather = {network.chance() / 10, network.chance() / 10,
                           milliseconds(network.random(80))};
        fSettings.memory = std::size_t{8} << 20U;
        newEngine();
        for (const char* name : {"g1", "g2", "g3"}) fWorld.add(name);
    }

    void run() {
        fWorld.run(20s, [this] { step(); });
        fWorld.network.weather = {};
        for (const char* name : {"engine", "g1", "g2", "g3"}) fWorld.network.mend(name);
        answerAll();
        fWorld.run(13s);
        answerAll();
        fWorld.run(2s);
        speak();
        fWorld.run(1s);
        check();
    }

  private:
    void newEngine() {
        ++fEngines;
        fSaid = 0;
        fBlocks.clear();
        fSure.clear();
        for (const auto& [name, gateway] : fWorld.gateways) {
            fUnsureUntil[name] = fWorld.network.now + 3s;
        }
        fWorld.start(fSettings);
    }
    void step() {
        auto& network = fWorld.network;
        for (auto texts = network.random(4); texts > 0; --texts) speak();
        if (network.chance() < 0.01) sayLarge();
        if (network.chance() < 0.02) {
            fBlocks.push_back(label());
            fSure[fBlocks.back()] = {network.now, sureNow()};
            fWorld.engine->send("/c/b",
                                fBlocks.back() + std::string(network.random(1 << 20U), '\0'));
        }
        for (const auto& [name, gateway] : fWorld.gateways) {
            if (gateway->isJoined && network.chance() < 0.3) publish(*gateway);
            if (network.chance() < 0.2) answer(*gateway);
            if (network.chance() < 0.002) {
                fPages[name] = network.random(3);
                gateway->end->pages(fPages[name]);
            }
        }
        const std::string who = "g" + std::to_string(1 + network.random(3));
        if (network.chance() < 0.002) network.cut(network.chance() < 0.2 ? "engine" : who);
        if (network.chance() < 0.01) network.mend(who);
        if (network.chance() < 0.02) network.mend("engine");
        noteUnsure();
        if (network.chance() < 0.0005) {
            fWorld.kill();
            newEngine();
        }
        // A text that is nearly a batch is longer as Base64.
        EXPECT_LE(fWorld.engine->end->statistics().waiting, fSettings.memory + 2 * kBatchSize);
    }
    /// The engine may be right not to wait for a gateway that has been cut off or without pages, or
    /// has not joined, up to now or a little before.
    void noteUnsure() {
        auto& network = fWorld.network;
        for (const auto& [name, gateway] : fWorld.gateways) {
            const bool isEmpty = fPages[name] == 0;
            if (isEmpty || !gateway->isJoined || network.isCut(name) || network.isCut("engine")) {
                fUnsureUntil[name] = network.now + 3s;
            }
            for (auto& [block, sent] : fSure) {
                // The engine may have dropped it before, and what said so was lost.
                const bool isRecent = !gateway->isJoined && network.now - sent.when < 2s;
                if (isEmpty || isRecent) sent.gateways.erase(name);
            }
        }
    }
    std::set<std::string> sureNow() {
        std::set<std::string> names;
        for (const auto& [name, until] : fUnsureUntil) {
            if (fWorld.network.now >= until) names.insert(name);
        }
        return names;
    }
    std::string label() {
        return "e" + std::to_string(fEngines) + "#" + std::to_string(++fSaid) + " ";
    }
    void speak() { fWorld.engine->end->down()->text("/c/a", label()); }
    void sayLarge() {
        const auto size = fWorld.network.random(1 << 20U);
        fWorld.engine->end->down()->text("/c/l", label() + std::string(size, '\xff'));
    }
    void publish(TestGateway& gateway) {
        if (fPublished[gateway.name].first != gateway.joins) {
            fPublished[gateway.name] = {gateway.joins, 0};
        }
        auto& [joins, count] = fPublished[gateway.name];
        gateway.end->publish(
            "/up", gateway.name + "." + std::to_string(joins) + "#" + std::to_string(++count));
    }
    void answer(TestGateway& gateway) {
        // They are those of the blocks that came last.
        auto line = gateway.got.rbegin();
        for (; !gateway.tickets.empty(); gateway.tickets.pop_back(), ++line) {
            while (!line->starts_with(kBlock)) ++line;
            const auto how = fWorld.network.random(3);
            if (how < 2) gateway.tickets.back()->answer(static_cast<BlockOutcome>(2 * how));
            const auto begin = kBlock.size();
            const auto block = line->substr(begin, line->find(' ', begin) + 1 - begin);
            if (how == 0) fDelivered.insert(block);
            if (how < 2) fAnswered.insert({block, gateway.name});
        }
    }
    void answerAll() {
        for (const auto& [name, gateway] : fWorld.gateways) answer(*gateway);
    }
    void check() {
        const auto& ends = fWorld.engine->ends;
        for (std::size_t i = 0; i < ends.size(); ++i) {
            EXPECT_NE(ends[i], "");
            if (ends[i] != "delivered") continue;
            EXPECT_TRUE(fDelivered.contains(fBlocks[i])) << fBlocks[i];
            for (const auto& name : fSure[fBlocks[i]].gateways) {
                EXPECT_TRUE(fAnswered.contains({fBlocks[i], name})) << fBlocks[i] << name;
            }
        }
        Sequence up;
        for (const auto& line : fWorld.engine->got) up.expectNext(line, "at the engine");
        for (const auto& [name, gateway] : fWorld.gateways) {
            ASSERT_TRUE(gateway->isJoined) << name;
            Sequence down;
            for (const auto& line : gateway->got) down.expectNext(line, name.c_str());
            ASSERT_EQ(down.last.size(), 1U);  // nothing of an engine that was before
            EXPECT_EQ(down.last.begin()->second, fSaid) << name;
            const auto& [joins, count] = fPublished[name];
            if (joins == gateway->joins && count > 0) {
                EXPECT_EQ(up.last[name + "." + std::to_string(joins)], count);
            }
        }
        EXPECT_EQ(fWorld.engine->end->statistics().waiting, 0U);
    }

    static constexpr std::string_view kBlock = "block /c/b ";

    World fWorld;
    EngineEnd::Settings fSettings = TestEngine::usual();
    int fEngines = 0;
    std::uint64_t fSaid = 0;
    std::vector<std::string> fBlocks;  ///< labels of those that this engine sent
    std::set<std::string> fDelivered;  ///< labels of those of which a gateway said so
    /// Labels and gateways that said that, or that nobody hears them.
    std::set<std::pair<std::string, std::string>> fAnswered;
    std::map<std::string, std::size_t> fPages;
    std::map<std::string, TimePoint> fUnsureUntil;
    struct Sent {
        TimePoint when;
        std::set<std::string> gateways;  ///< that it has to wait for
    };
    std::map<std::string, Sent> fSure;  ///< by the labels of blocks
    std::map<std::string, std::pair<int, std::uint64_t>> fPublished;
};

}  // namespace

void playStorm(std::uint64_t seed, OnMessage onMessage) { Storm(seed, std::move(onMessage)).run(); }

}  // namespace link_test
