#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "EngineEnd.hpp"
#include "GatewayEnd.hpp"
#include "Subjects.hpp"

/// A cluster, engines and gateways in one thread, with a time of their own and bad luck from a
/// seed.
namespace link_test {

using namespace kirolink;
using std::chrono::milliseconds;
using TimePoint = std::chrono::steady_clock::time_point;

/// Carries messages, later, not at all, twice or in another order.
class Network {
  public:
    struct Weather {
        double lost = 0;
        double doubled = 0;
        milliseconds delay{0};  ///< at most, beyond
        milliseconds least{0};  ///< this
    };

    explicit Network(std::uint64_t seed = 1) : fRandom(seed) {}

    [[nodiscard]] std::unique_ptr<Cluster> connect(const std::string& name);
    /// Nothing goes to or comes from that one any more.
    void cut(const std::string& name) { fCut.insert(name); }
    void mend(const std::string& name) { fCut.erase(name); }
    [[nodiscard]] bool isCut(const std::string& name) const { return fCut.contains(name); }
    /// Brings what is due.
    void deliver();
    /// A message from somebody who is no end.
    void inject(const std::string& subject, std::string bytes);

    [[nodiscard]] double chance() { return std::uniform_real_distribution<>()(fRandom); }
    [[nodiscard]] std::uint64_t random(std::uint64_t below) { return fRandom() % below; }

    TimePoint now{std::chrono::hours(1)};
    Weather weather;
    std::size_t bytesPerSecond = 0;  ///< of the engine's line; 0: as many as there are
    std::size_t mostUnderWay = 0;    ///< bytes that waited for it
    /// Sees each message that is published, before the weather does.
    std::function<void(const std::string& subject, const std::string& bytes)> onMessage;

  private:
    class Line;
    struct Message {
        std::string from;
        std::string subject;
        Cluster::Bytes bytes;
    };
    void publish(const std::string& from, const std::string& subject, const Cluster::Bytes& bytes);

    std::mt19937_64 fRandom;
    std::set<std::string> fCut;
    std::multimap<TimePoint, Message> fUnderWay;
    std::vector<Line*> fLines;  ///< in the order in which they came, so that a seed is enough
    TimePoint fLineFree{};
};

/// Surroundings with the network's time; its wall clock is that and `ahead`.
[[nodiscard]] Surroundings surroundingsOf(Network& network, std::chrono::microseconds ahead);

/// A gateway that keeps what it is given.
class TestGateway final : public Follower {
  public:
    TestGateway(Network& network, const std::string& name,
                std::chrono::microseconds ahead = std::chrono::microseconds(0));

    PageWanted pageOffered(const PageDigest& digest) noexcept override;
    bool pageGrows(std::size_t bytes) noexcept override;
    void pageCame(std::string bytes) noexcept override;
    void joined(const Description& description) noexcept override;
    void text(const std::string& channel, std::string_view text) noexcept override;
    void block(const std::string& channel, std::shared_ptr<const std::string> block,
               std::unique_ptr<BlockTicket> ticket) noexcept override;
    void silent(TimePoint since) noexcept override;
    void heard() noexcept override { events.emplace_back("heard"); }
    void left(std::string_view why, Whose whose) noexcept override;

    const std::string name;
    std::vector<std::string> events;  ///< "joined", "silent", "heard", "left: WHY"
    /// Since it joined last: "CHANNEL TEXT", blocks as "block CHANNEL BLOCK".
    std::vector<std::string> got;
    std::vector<std::unique_ptr<BlockTicket>> tickets;  ///< of blocks that are not answered
    Description session;
    std::string page;                          ///< as it has come
    std::size_t mostOfPage = ~std::size_t{0};  ///< that it takes
    std::size_t ofPage = 0;                    ///< bytes that it was told of
    bool isJoined = false;
    int joins = 0;
    std::unique_ptr<Cluster> cluster;
    std::unique_ptr<GatewayEnd> end;
};

/// An engine that keeps what it is given.
class TestEngine final : public EngineHost {
  public:
    explicit TestEngine(Network& network, EngineEnd::Settings settings = usual());

    static EngineEnd::Settings usual();

    void text(const std::string& channel, std::string text,
              std::shared_ptr<const void> ticket) override;
    void block(const std::string& channel, std::string_view block) override;
    void view(View kind, std::uint64_t count, std::string_view client) override;
    void gatewayFound(const std::string& address) override { links.push_back(address); }
    void lastPageGone() override { ++timesGone; }
    void note(std::string_view event, std::string_view detail) noexcept override;

    /// Sends a block; what became of it is then in `ends` at the place that is returned.
    std::size_t send(const std::string& channel, const std::string& block);

    std::vector<std::string> got;    ///< "CHANNEL TEXT", "block CHANNEL BLOCK"
    std::vector<std::string> views;  ///< "KIND COUNT CLIENT"
    std::vector<std::string> links;
    std::vector<std::string> notes;
    std::vector<std::string> ends;  ///< of blocks: "", "delivered", "given back"; each is set once
    std::vector<std::shared_ptr<const void>> tickets;
    bool keepsTickets = false;
    int timesGone = 0;
    TimePoint due{};
    std::unique_ptr<Cluster> cluster;
    std::unique_ptr<EngineEnd> end;
};

/// All of them, and time that passes.
class World {
  public:
    explicit World(std::uint64_t seed = 1) : network(seed) {}

    TestEngine& start(EngineEnd::Settings settings = TestEngine::usual());
    TestGateway& add(const std::string& name,
                     std::chrono::microseconds ahead = std::chrono::microseconds(0));
    /// The engine as if its process had been killed.
    void kill();
    void run(milliseconds time, const std::function<void()>& eachStep = {});

    Network network;
    std::unique_ptr<TestEngine> engine;
    std::map<std::string, std::unique_ptr<TestGateway>> gateways;
    TimePoint nextTick{};
};

}  // namespace link_test
