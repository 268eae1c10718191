#include "World.hpp"

#include <gtest/gtest.h>

#include "OwnPage.hpp"

namespace link_test {
namespace {

constexpr milliseconds kStep{5};
constexpr milliseconds kTick{50};

bool matches(const std::string& pattern, const std::string& subject) {
    if (!pattern.ends_with('*')) return pattern == subject;
    const auto before = pattern.substr(0, pattern.size() - 1);
    return subject.starts_with(before) && subject.find('.', before.size()) == std::string::npos;
}

class Wait final : public BlockWait {
  public:
    Wait(std::vector<std::string>& ends, std::size_t at) : fEnds(ends), fAt(at) {}
    void finished(bool isDelivered) noexcept override {
        EXPECT_EQ(fEnds[fAt], "");
        fEnds[fAt] = isDelivered ? "delivered" : "given back";
    }

  private:
    std::vector<std::string>& fEnds;
    const std::size_t fAt;
};

}  // namespace

// --- The network --------------------------------------------------------------------------------

class Network::Line final : public Cluster {
  public:
    Line(Network& network, std::string name) : fNetwork(network), fName(std::move(name)) {
        fNetwork.fLines.push_back(this);
    }
    ~Line() override {
        EXPECT_TRUE(fListeners.empty());
        std::erase(fNetwork.fLines, this);
    }
    bool publish(const std::string& subject, Bytes bytes) noexcept override {
        EXPECT_LE(bytes->size(), std::size_t{1} << 20U);
        fNetwork.publish(fName, subject, bytes);
        return true;
    }
    std::unique_ptr<Subscription> subscribe(const std::string& subject,
                                            Listener listener) override {
        const auto id = fNext++;
        fListeners.emplace(id, std::pair(subject, std::move(listener)));
        return std::make_unique<Held>(*this, id);
    }
    bool isConnected() const noexcept override { return !fNetwork.isCut(fName); }

    void bring(const Message& message) {
        if (fNetwork.isCut(fName)) return;
        for (const auto& [id, listener] : fListeners) {
            if (matches(listener.first, message.subject)) {
                return listener.second(message.subject, *message.bytes);
            }
        }
    }

  private:
    struct Held final : Subscription {
        Held(Line& theLine, std::uint64_t theID) : line(theLine), id(theID) {}
        ~Held() override { line.fListeners.erase(id); }
        Line& line;
        std::uint64_t id;
    };
    Network& fNetwork;
    const std::string fName;
    std::map<std::uint64_t, std::pair<std::string, Listener>> fListeners;
    std::uint64_t fNext = 0;
};

std::unique_ptr<Cluster> Network::connect(const std::string& name) {
    return std::make_unique<Line>(*this, name);
}

void Network::publish(const std::string& from, const std::string& subject,
                      const Cluster::Bytes& bytes) {
    if (onMessage) onMessage(subject, *bytes);
    if (fCut.contains(from)) return;
    auto base = now;
    if (bytesPerSecond > 0 && from == "engine") {
        const std::chrono::duration<double> takes(static_cast<double>(bytes->size()) /
                                                  static_cast<double>(bytesPerSecond));
        fLineFree =
            std::max(fLineFree, now) + std::chrono::duration_cast<TimePoint::duration>(takes);
        base = fLineFree;
        const std::chrono::duration<double> queue = fLineFree - now;
        mostUnderWay =
            std::max(mostUnderWay,
                     static_cast<std::size_t>(queue.count() * static_cast<double>(bytesPerSecond)));
    }
    const int copies = chance() < weather.doubled ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
        if (chance() < weather.lost) continue;
        const milliseconds delay(random(static_cast<std::uint64_t>(weather.delay.count()) + 1));
        fUnderWay.emplace(base + weather.least + delay, Message{from, subject, bytes});
    }
}

void Network::inject(const std::string& subject, std::string bytes) {
    publish("", subject, std::make_shared<const std::string>(std::move(bytes)));
}

void Network::deliver() {
    while (!fUnderWay.empty() && fUnderWay.begin()->first <= now) {
        const auto message = fUnderWay.extract(fUnderWay.begin()).mapped();
        for (auto* line : fLines) line->bring(message);
    }
}

Surroundings surroundingsOf(Network& network, std::chrono::microseconds ahead) {
    const auto wall = [&network, ahead] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   network.now.time_since_epoch()) +
               ahead;
    };
    return {[&network] { return network.now; }, wall, [&network] { return network.random(~0ULL); }};
}

// --- A gateway ----------------------------------------------------------------------------------

TestGateway::TestGateway(Network& network, const std::string& itsName,
                         std::chrono::microseconds ahead)
    : name(itsName), cluster(network.connect(itsName)) {
    GatewayEnd::Identity identity{"s", name, "https://" + name + ":1/s/s"};
    end = std::make_unique<GatewayEnd>(*cluster, std::move(identity), *this,
                                       surroundingsOf(network, ahead));
}

Follower::PageWanted TestGateway::pageOffered(const PageDigest& digest) noexcept {
    return digestOf(page) == digest ? PageWanted::kHere : PageWanted::kFetch;
}

bool TestGateway::pageGrows(std::size_t bytes) noexcept {
    EXPECT_TRUE(isJoined);
    ofPage = bytes;
    return bytes <= mostOfPage;
}

void TestGateway::pageCame(std::string bytes) noexcept { page = std::move(bytes); }

void TestGateway::joined(const Description& description) noexcept {
    EXPECT_FALSE(std::exchange(isJoined, true));
    session = description;
    got.clear();
    tickets.clear();
    ++joins;
    events.emplace_back("joined");
}

void TestGateway::text(const std::string& channel, std::string_view text) noexcept {
    EXPECT_TRUE(isJoined);
    got.push_back(channel + " " + std::string(text));
}

void TestGateway::block(const std::string& channel, std::shared_ptr<const std::string> block,
                        std::unique_ptr<BlockTicket> ticket) noexcept {
    EXPECT_TRUE(isJoined);
    got.push_back("block " + channel + " " + *block);
    tickets.push_back(std::move(ticket));
}

void TestGateway::silent(TimePoint since) noexcept {
    static_cast<void>(since);
    events.emplace_back("silent");
}

void TestGateway::left(std::string_view why, Whose whose) noexcept {
    EXPECT_TRUE(std::exchange(isJoined, false));
    EXPECT_EQ(whose == Whose::kEngine, why.find("engine") != std::string_view::npos) << why;
    events.push_back("left: " + std::string(why));
}

// --- An engine ----------------------------------------------------------------------------------

EngineEnd::Settings TestEngine::usual() {
    EngineEnd::Settings settings;
    settings.session = "s";
    settings.description.mayPublish = {"/up", "/page/*"};
    settings.description.maySubscribe = {"/c/*"};
    settings.description.tokenHash = std::string(64, 'a');
    return settings;
}

TestEngine::TestEngine(Network& network, EngineEnd::Settings settings)
    : cluster(network.connect("engine")) {
    end = std::make_unique<EngineEnd>(
        *cluster, std::move(settings), *this, [this] { due = {}; },
        surroundingsOf(network, std::chrono::microseconds(0)));
}

void TestEngine::text(const std::string& channel, std::string text,
                      std::shared_ptr<const void> ticket) {
    got.push_back(channel + " " + text);
    if (keepsTickets) tickets.push_back(std::move(ticket));
}

void TestEngine::block(const std::string& channel, std::string_view block) {
    got.push_back("block " + channel + " " + std::string(block));
}

void TestEngine::view(View kind, std::uint64_t count, std::string_view client) {
    static constexpr const char* kNames[] = {"first", "further", "return"};
    views.push_back(kNames[static_cast<std::size_t>(kind)] + (" " + std::to_string(count)) + " " +
                    std::string(client));
}

void TestEngine::note(std::string_view event, std::string_view detail) noexcept {
    notes.push_back(std::string(event) + (detail.empty() ? "" : ": ") + std::string(detail));
}

std::size_t TestEngine::send(const std::string& channel, const std::string& block) {
    ends.emplace_back();
    end->down()->block(channel, block, std::make_unique<Wait>(ends, ends.size() - 1));
    return ends.size() - 1;
}

// --- All of them --------------------------------------------------------------------------------

TestEngine& World::start(EngineEnd::Settings settings) {
    engine = std::make_unique<TestEngine>(network, std::move(settings));
    return *engine;
}

TestGateway& World::add(const std::string& name, std::chrono::microseconds ahead) {
    auto& place = gateways[name];
    place = std::make_unique<TestGateway>(network, name, ahead);
    return *place;
}

void World::kill() {
    network.cut("engine");
    engine.reset();
    network.mend("engine");
}

void World::run(milliseconds time, const std::function<void()>& eachStep) {
    for (const auto end = network.now + time; network.now < end;) {
        network.now += kStep;
        if (eachStep) eachStep();
        network.deliver();
        if (engine && network.now >= engine->due) engine->due = engine->end->step(network.now);
        if (network.now < nextTick) continue;
        nextTick = network.now + kTick;
        for (const auto& [name, gateway] : gateways) gateway->end->tick(network.now);
    }
}

}  // namespace link_test
