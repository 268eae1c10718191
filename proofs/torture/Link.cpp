// Both ends of a link, in one thread, with a cluster and a time of their own. Memory runs out at
// each place in turn; once there is some again everything goes on, in order and once.
#include <algorithm>
#include <chrono>
#include <deque>
#include <list>
#include <new>
#include <optional>
#include <stdexcept>

#include "EngineEnd.hpp"
#include "GatewayEnd.hpp"
#include "OwnPage.hpp"
#include "Scenario.hpp"

namespace torture {
namespace {

using namespace kirolink;
using namespace std::chrono_literals;
using std::chrono::milliseconds;
using TimePoint = std::chrono::steady_clock::time_point;

/// Loses nothing; what it does itself has memory.
class Wires final : public Cluster {
  public:
    bool publish(const std::string& subject, Bytes bytes) noexcept override {
        const Spared spared;
        fQueue.emplace_back(subject, std::move(bytes));
        return true;
    }
    std::unique_ptr<Subscription> subscribe(const std::string& subject,
                                            Listener listener) override {
        const Spared spared;
        fListeners.push_back({subject, std::move(listener)});
        return std::make_unique<Held>(fListeners, std::prev(fListeners.end()));
    }
    [[nodiscard]] bool isConnected() const noexcept override { return true; }

    void deliver() {
        const Spared spared;
        while (!fQueue.empty()) {
            const auto [subject, bytes] = std::move(fQueue.front());
            fQueue.pop_front();
            for (const auto& one : fListeners) {
                const auto part = one.subject.substr(0, one.subject.find('*'));
                if (!subject.starts_with(part) || (part == one.subject && part != subject))
                    continue;
                const bool was = exposeThread(fIsExposed);
                try {
                    one.listener(subject, *bytes);
                } catch (const std::bad_alloc&) {  // as if it had been lost
                }
                exposeThread(was);
            }
        }
    }
    void expose(bool isExposed) { fIsExposed = isExposed; }

  private:
    struct Listening {
        std::string subject;
        Listener listener;
    };
    using Listeners = std::list<Listening>;
    struct Held final : Subscription {
        Held(Listeners& theListeners, Listeners::iterator itsPlace)
            : listeners(theListeners), at(itsPlace) {}
        ~Held() override { listeners.erase(at); }
        Listeners& listeners;
        const Listeners::iterator at;
    };

    std::deque<std::pair<std::string, Bytes>> fQueue;
    Listeners fListeners;
    bool fIsExposed = true;
};

/// Says whether numbers come one after the other.
class Sequence {
  public:
    explicit Sequence(const char* what) : fWhat(what) {}
    /// With `mayLose` some may be missing before this one.
    void next(std::string_view text, bool mayLose) {
        const auto number = std::stoul(std::string(text.substr(0, text.find(' '))));
        const bool isRight = mayLose ? number > last : number == last + 1 || last == 0;
        if (!isRight) {
            finding(std::string(fWhat) + ": " + std::to_string(number) + " behind " +
                    std::to_string(last));
        }
        last = number;
    }
    unsigned long last = 0;

  private:
    const char* fWhat;
};

/// A gateway that checks what it is given.
class Gateway final : public Follower {
  public:
    PageWanted pageOffered(const PageDigest& digest) noexcept override {
        const Spared spared;
        if (!page.empty() && digestOf(page) == digest) return PageWanted::kHere;
        page.clear();
        return PageWanted::kFetch;
    }
    bool pageGrows(std::size_t bytes) noexcept override { return bytes > 0; }
    void pageCame(std::string bytes) noexcept override { page = std::move(bytes); }
    void joined(const Description& session) noexcept override {
        const Spared spared;
        if (isJoined || session.mayPublish.empty()) finding("it joins twice, or half");
        isJoined = true;
        texts.last = 0;
    }
    void text(const std::string& channel, std::string_view text) noexcept override {
        const Spared spared;
        if (!isJoined || channel != "/c/a") finding("a text for nobody");
        texts.next(text, false);
    }
    void block(const std::string& channel, std::shared_ptr<const std::string> block,
               std::unique_ptr<BlockTicket> ticket) noexcept override {
        const Spared spared;
        if (channel != "/b" || block->size() != kBlock) finding("half a block");
        exposeThread(true);
        ticket->answer(BlockOutcome::kDelivered);
    }
    void silent(TimePoint /*since*/) noexcept override {}
    void heard() noexcept override {}
    void left(std::string_view /*why*/, Whose /*whose*/) noexcept override { isJoined = false; }

    static constexpr std::size_t kBlock = 200'000;
    bool isJoined = false;
    Sequence texts{"texts of the engine's"};
    std::string page;
    std::optional<GatewayEnd> end;
};

/// An engine that checks what it is told.
class Engine final : public EngineHost {
  public:
    void text(const std::string& channel, std::string text, std::shared_ptr<const void>) override {
        const Spared spared;
        if (channel != "/up") finding("a text on " + channel);
        pages.next(text, true);
    }
    void block(const std::string& /*channel*/, std::string_view block) override {
        if (block.size() != Gateway::kBlock) finding("half a block of a page's");
        ++blocks;
    }
    void view(View, std::uint64_t, std::string_view) override { ++views; }
    void gatewayFound(const std::string&) override {}
    void lastPageGone() override {}
    void note(std::string_view, std::string_view) noexcept override {}

    Sequence pages{"texts of a page's"};
    int blocks = 0;
    int views = 0;
    std::optional<EngineEnd> end;
};

struct Wait final : BlockWait {
    explicit Wait(std::vector<int>& itsEnds) : ends(itsEnds), at(itsEnds.size()) {
        ends.push_back(0);
    }
    void finished(bool isDelivered) noexcept override {
        if (ends[at] != 0) finding("a block is answered twice");
        ends[at] = isDelivered ? 1 : 2;
    }
    std::vector<int>& ends;
    const std::size_t at;
};

/// A session from its beginning on, with two gateways and what goes to and fro.
struct Linked {
    ~Linked() {
        b.end.reset();
        a.end.reset();
        engine.end.reset();
        wires.deliver();
    }
    Surroundings surroundings() {
        const Spared spared;
        auto all = Surroundings::real();
        all.now = [this] { return now; };
        all.random = [this] { return ++random; };
        return all;
    }
    static void begin(Linked& l) {
        const Spared spared;
        EngineEnd::Settings settings;
        settings.session = "s";
        settings.page = writePage({{"/", "text/html", std::string(100'000, 'p')}});
        settings.description.mayPublish = {"/up"};
        settings.description.maySubscribe = {"/c/*"};
        settings.description.tokenHash = std::string(64, 'a');
        settings.memory = std::size_t{16} << 20U;
        auto surroundings = l.surroundings();
        exposeThread(true);
        try {
            l.engine.end.emplace(
                l.wires, std::move(settings), l.engine, [] {}, surroundings);
        } catch (const std::runtime_error&) {
            throw std::bad_alloc();  // cryptography cannot always tell that from a missing hash
        }
    }
    static void join(Linked& l) {
        for (auto* gateway : {&l.a, &l.b}) {
            if (gateway->end) continue;
            const std::string name = gateway == &l.a ? "a" : "b";
            GatewayEnd::Identity identity{"s", name, "https://" + name};
            gateway->end.emplace(l.wires, std::move(identity), *gateway, l.surroundings());
        }
        l.run(700ms);
    }
    static void sayDown(Linked& l) {
        for (int i = 0; i < 10; ++i) {
            l.engine.end->down()->text("/c/a", std::to_string(++l.said) + " small");
            if (i % 5 == 0) {
                const Spared spared;
                const std::string large =
                    std::to_string(++l.said) + ' ' + std::string(150'000, 'x');
                exposeThread(true);
                l.engine.end->down()->text("/c/a", large);
            }
            l.run(20ms);
        }
        l.sendBlock();
        l.run(100ms);
    }
    static void sayUp(Linked& l) {
        l.a.end->announce(GatewayEnd::ViewKind::kNew, "client", 1);
        l.a.end->pages(1);
        for (int i = 0; i < 5; ++i) {
            l.a.end->publish("/up", std::to_string(++l.saidUp));
            l.run(20ms);
        }
        const std::string block(Gateway::kBlock, 'b');
        l.a.end->sendBlock("/up", block);
        l.run(100ms);
    }
    static void part(Linked& l) {
        l.b.end.reset();
        l.b.isJoined = false;
        l.run(400ms);
        static_cast<void>(l.engine.end->statistics());
    }
    void sendBlock() {
        std::unique_ptr<BlockWait> wait;
        std::string block;
        {
            const Spared spared;
            wait = std::make_unique<Wait>(ends);
            block.assign(Gateway::kBlock, 'b');
        }
        static_cast<void>(engine.end->down()->block("/b", block, std::move(wait)));
    }
    void run(milliseconds time) {
        for (const auto until = now + time; now < until; now += 10ms) {
            if (engine.end) engine.end->step(now);
            wires.deliver();
            for (auto* gateway : {&a, &b}) {
                if (gateway->end) gateway->end->tick(now);
            }
            wires.deliver();
        }
    }
    /// There is memory again: all that is said from now on arrives, and what waited has ended.
    std::string state() {
        wires.expose(false);
        run(30s);
        const auto before = a.texts.last;
        engine.end->down()->text("/c/a", std::to_string(++said) + " last");
        sendBlock();
        a.end->publish("/up", std::to_string(++saidUp));
        const auto heard = engine.blocks + engine.views;
        a.end->announce(GatewayEnd::ViewKind::kNew, "client", 2);
        a.end->sendBlock("/up", std::string(Gateway::kBlock, 'b'));
        run(2s);
        if (!a.isJoined || b.isJoined) finding("not joined, or still");
        if (a.texts.last != said) finding("stuck behind " + std::to_string(before));
        if (engine.blocks + engine.views != heard + 2) finding("a block or a view is not heard");
        if (engine.pages.last != static_cast<unsigned long>(saidUp)) finding("a page is not heard");
        if (std::ranges::count(ends, 0) > 0) finding("a block waits for ever");
        if (ends.back() != 1) finding("a block does not arrive");
        if (a.page.size() < 100'000) finding("the page has not come");
        if (engine.end->gateways().size() != 1) finding("a gateway too many");
        return "good";
    }

    TimePoint now{1h};
    std::uint64_t random = 0;
    unsigned long said = 0;
    int saidUp = 0;
    std::vector<int> ends;
    Wires wires;
    Engine engine;
    Gateway a;
    Gateway b;
};

}  // namespace

void addLink(Scenarios& all) {
    all.push_back(scenario<Linked>(
        "link: both ends", kBadAlloc,
        {&Linked::begin, &Linked::join, &Linked::sayDown, &Linked::sayUp, &Linked::part}));
}

}  // namespace torture
