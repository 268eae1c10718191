#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>

#include "World.hpp"

// What pages do: they come and return, speak and lie, read and leave.

namespace simulate {
namespace {

using kirogateway::Socket;
using std::to_string;
using Part = Item::Part;

const std::array<std::string, 9> kPatterns{"/a/*", "/b",  "/c/*",      "",  "/\xc3\xbc",
                                           "/a/1", "/no", "/c/deep/*", "/*"};

std::string quoted(const std::string& text) { return '"' + text + '"'; }

template <typename List>
std::string listed(const List& texts) {
    std::string list;
    for (const auto& text : texts) list += (list.empty() ? "" : ",") + quoted(text);
    return '[' + list + ']';
}

}  // namespace

std::string World::anyPattern() { return random.from(kPatterns); }

// --- Pages come --------------------------------------------------------------------------------

void World::join() {
    auto& page = anyPage();
    if (page.peer != nullptr) return;
    page.view.clear();
    Wish wish;
    wish.mayReturn = random.chance(85);
    if (random.chance(20)) wish.maxBlock = random.below(2000);
    for (std::size_t i = random.below(5); i > 0; --i) wish.subscribe.push_back(anyPattern());
    if (random.chance(5)) wish.view = "00112233445566778899aabbccddeeff";  // nobody's
    connect(page, wish);
}

void World::comeBack() {
    auto& page = anyPage();
    if (page.view.empty()) return;
    const auto chosen = random.below(100);
    const auto lie = random.below(page.handled + 3);
    returnTo(page, chosen < 85 ? page.handled : lie);
}

void World::returnTo(Page& page, std::uint64_t last) {
    Wish wish;
    wish.view = page.view;
    wish.last = last;
    wish.mayReturn = random.chance(95);
    if (random.chance(10)) wish.maxBlock = random.below(2000);
    wish.refused = page.refused;
    if (random.chance(30)) wish.subscribe.push_back(anyPattern());
    connect(page, wish);
}

void World::connect(Page& page, const Wish& wish) {
    static boost::asio::io_context io;
    // A connection that the page has given up stays, as long as the gateway does not know.
    auto& peer = peers.emplace_back(*model, peers.size(),
                                    random.pick<std::size_t>({150, 3000, 70000, 3000000}));
    peer.bind = [this](Peer& which) { bindView(which); };
    peer.mayReturn = wish.mayReturn;
    peer.maxBlock = wish.maxBlock;
    sockets.push_back(std::make_unique<Socket>(boost::asio::ip::tcp::socket(io)));
    peerOf[sockets.back().get()] = &peer;
    std::shared_ptr<Socket> socket(sockets.back().get(), [&peer](Socket*) { peer.isLetGo = true; });
    conns.push_back(std::make_shared<Conn>(*this, peer, std::move(socket), random.chance(75)));
    page.peer = &peer;
    page.unanswered.clear();
    tell("page " + to_string(&page - pages.data()) + " connects as " + to_string(peer.index) +
         (wish.view.empty() ? "" : ", asks for a view with last " + to_string(wish.last)));
    if (random.chance(3)) return;  // it says nothing
    std::string hello = R"({"t":"hello","version":1,"subscribe":)" + listed(wish.subscribe);
    if (!wish.mayReturn) hello += R"(,"resume":false)";
    if (wish.maxBlock != UINT64_MAX) {
        hello += R"(,"limits":{"block":)" + to_string(wish.maxBlock) + "}";
    }
    if (!wish.view.empty()) {
        std::string refused;
        for (const auto number : wish.refused) {
            refused += (refused.empty() ? "" : ",") + to_string(number);
        }
        hello += R"(,"view":)" + quoted(wish.view) + R"(,"last":)" + to_string(wish.last) +
                 R"(,"refused":[)" + refused + "]";
    }
    greet(peer, wish);
    peer.sayings.back().bytes = hello + "}";
}

/// What the gateway's hello has to say is reckoned when it reads the page's.
void World::greet(Peer& peer, const Wish& wish) {
    const auto before = std::make_shared<Before>();
    say(
        peer, {}, [this, &peer, wish, before] { reckonHello(peer, wish, *before); },
        [this, &peer, name = wish.view, before] {
            auto* view = model->viewNamed(name);
            if (view != nullptr && peer.view == nullptr && peer.greeting.isReturn) {
                doubtReturn(*view, *before);
            }
        });
}

void World::reckonHello(Peer& peer, const Wish& wish, Before& before) {
    auto* view = model->viewNamed(wish.view);
    auto& greeting = peer.greeting;
    greeting.isReturn = view != nullptr && model->canReturn(*view, wish.last);
    if (view != nullptr && !greeting.isReturn) {
        view->isBadReturn = true;
        ++model->badReturns;
    }
    std::map<std::string, bool> names;
    if (greeting.isReturn) {
        greeting.last = wish.last;
        before = {view->acknowledged, view->subscriptions};
        names = view->subscriptions;
        if (view->peer != nullptr) view->peer->isReplaced = true;
        model->resume(*view, wish.last, wish.refused);
    }
    for (const auto& [name, isCertain] : names) {
        greeting.isVague = greeting.isVague || !isCertain;
    }
    for (const auto& name : wish.subscribe) {
        const bool fits = names.contains(name) || names.size() < options.limits.subscriptions;
        if (!model->mayHear(name) || !fits) {
            greeting.refused.insert(name);
        } else {
            names.emplace(name, !greeting.isVague);
        }
    }
    for (const auto& [name, isCertain] : names) greeting.subscribed.insert(name);
    if (greeting.isReturn) view->subscriptions = names;
}

/// Nothing has happened, or everything, unless it still has its old connection.
void World::doubtReturn(ViewModel& view, const Before& before) {
    view.acknowledged = before.acknowledged;
    model->blur(view);
    const bool isUntouched = view.where == Where::kConnected && !view.peer->isEnded;
    if (isUntouched) {
        view.subscriptions = before.subscriptions;
        view.peer->isReplaced = false;
    }
    for (auto& [name, isCertain] : view.subscriptions) isCertain = isCertain && isUntouched;
}

// --- Pages speak -------------------------------------------------------------------------------

void World::say(Peer& peer, std::string text, std::function<void()> takesEffect,
                std::function<void()> isLost) {
    Saying saying;
    saying.bytes = std::move(text);
    saying.takesEffect = std::move(takesEffect);
    saying.isLost = std::move(isLost);
    peer.sayings.push_back(std::move(saying));
}

void World::speak() {
    auto& page = anyPage();
    if (page.peer == nullptr) return;
    auto& peer = *page.peer;
    const auto times = random.chance(5) ? random.between(50, 150) : 1;  // a flood
    const auto what = random.below(7);
    tell("page " + to_string(&page - pages.data()) + " says " + to_string(times) + " of kind " +
         to_string(what));
    for (std::size_t i = 0; i < times; ++i) {
        if (what == 0) subscribe(peer);
        if (what == 1) unsubscribe(peer);
        if (what == 2 || what == 3) publishFrom(peer);
        if (what == 4) sendBlock(peer);
        if (what == 5) {
            const auto id = to_string(random.below(1000));
            say(peer, R"({"t":"echo","id":)" + id + "}",
                [&peer, id] { peer.expectedControls.push_back("echo " + id); });
        }
        if (what == 6) {
            say(peer, R"([{"t":"dance"},{"t":"echo","id":"x"}])", [&peer] {
                peer.expectedControls.emplace_back("refused dance ");
                peer.expectedControls.emplace_back("echo \"x\"");
            });
            peer.sayings.back().isAtOnce = true;
        }
    }
}

void World::subscribe(Peer& peer) {
    const auto name = anyPattern();
    say(
        peer, R"({"t":"subscribe","channels":)" + listed(std::array{name}) + "}",
        [this, &peer, name] {
            if (peer.view == nullptr) return;
            const auto add = [this, &peer, name] {
                auto& names = peer.view->subscriptions;
                const bool fits =
                    names.contains(name) || names.size() < options.limits.subscriptions;
                if (model->mayHear(name) && fits) return names[name] = true;
                if (!peer.isControlVague)
                    peer.expectedControls.push_back("refused subscribe " + name);
                return false;
            };
            if (!peer.greeting.isVague || peer.isGreeted) return void(add());
            peer.isControlVague = true;
            peer.view->subscriptions.emplace(name, false);
            peer.behindHello.emplace_back(add);
        },
        [this, &peer, name] { doubt(peer, name); });
}

void World::unsubscribe(Peer& peer) {
    const auto name = anyPattern();
    say(
        peer, R"({"t":"unsubscribe","channels":)" + listed(std::array{name}) + "}",
        [&peer, name] {
            if (peer.view == nullptr) return;
            const auto remove = [&peer, name] { peer.view->subscriptions.erase(name); };
            remove();
            if (!peer.isGreeted) peer.behindHello.emplace_back(remove);
        },
        [this, &peer, name] { doubt(peer, name); });
}

/// Whether the view has subscribed to `name` is not known.
void World::doubt(Peer& peer, const std::string& name) {
    if (peer.view == nullptr || !model->mayHear(name)) return;
    const auto blur = [&peer, name] { peer.view->subscriptions[name] = false; };
    blur();
    if (!peer.isGreeted) peer.behindHello.emplace_back(blur);
}

void World::publishFrom(Peer& peer) {
    const bool isAllowed = random.chance(90);
    const std::string channel = isAllowed ? "/in/x" : "/out";
    const std::string text(random.below(300), static_cast<char>('a' + random.below(26)));
    say(
        peer, R"({"t":"publish","channel":)" + quoted(channel) + R"(,"text":)" + quoted(text) + "}",
        [this, &peer, isAllowed, channel, text] {
            if (peer.view == nullptr) return;
            if (isAllowed) return expectedInbound.emplace_back(channel, text), void();
            peer.expectedControls.push_back("refused publish " + channel);
        },
        [this] { expectedInbound.clear(); });
}

void World::sendBlock(Peer& peer) {
    say(peer, R"({"t":"channel","number":3,"name":"/in/block"})");
    std::string block("\1\1\3\0", 4);
    block.resize(16 + random.below(200), '\0');
    say(peer, std::move(block), [this, &peer] { blocksSaid += peer.view != nullptr ? 1 : 0; });
    peer.sayings.back().kind = Saying::Kind::kBinary;
}

void World::lie() {
    auto& page = anyPage();
    if (page.peer == nullptr) return;
    auto& peer = *page.peer;
    static const std::array<const char*, 8> kBad{
        "x",
        "{}",
        "[1]",
        R"({"t":1})",
        R"({"t":"ack"})",

        R"({"t":"subscribe","channels":["","","","","","","","","","","","","","","","",""]})",
        R"({"t":"channel","number":17,"name":""})",
        R"([{"t":"echo","id":[]}])"};
    const auto chosen = random.below(4);
    tell("page " + to_string(&page - pages.data()) + " lies, " + to_string(chosen));
    if (chosen == 0) {
        say(peer, random.from(kBad), [&peer] { peer.hasLied = true; });
        peer.sayings.back().isAtOnce = true;
    } else if (chosen == 1) {
        ack(peer, page.handled + random.below(20));
    } else if (chosen == 2) {
        answer(peer, static_cast<std::uint32_t>(random.below(12)), random.chance(50));
    } else {
        ack(peer, random.below(page.handled + 1));
    }
}

void World::ack(Peer& peer, std::uint64_t last) {
    const auto before = std::make_shared<std::uint64_t>(0);
    const auto takesEffect = [&peer, last, before] {
        if (peer.view == nullptr) return;
        *before = peer.view->acknowledged;
        if (last <= peer.view->written) peer.view->acknowledged = std::max(*before, last);
    };
    say(peer, R"({"t":"ack","last":)" + to_string(last) + "}", takesEffect, [&peer, before] {
        if (peer.view != nullptr) peer.view->acknowledged = *before;
    });
}

void World::answer(Peer& peer, std::uint32_t transfer, bool ok) {
    const auto text = R"({"t":"block","transfer":)" + to_string(transfer) + R"(,"ok":)" +
                      (ok ? "true}" : "false}");
    const auto effect = [&peer, transfer](Part part) {
        if (peer.view == nullptr || !peer.view->transfers.contains(transfer)) return;
        auto* item = peer.view->transfers[transfer];
        if (item == nullptr || peer.sent[transfer] != item->content.size()) return;
        Model::settle(*peer.view, *item, part);
    };
    say(
        peer, text, [effect, ok] { effect(ok ? Part::kHas : Part::kLeft); },
        [this, &peer] {
            if (peer.view != nullptr) model->blur(*peer.view);
        });
}

// --- Pages read --------------------------------------------------------------------------------

void World::readPage() {
    auto& page = anyPage();
    if (page.peer == nullptr) return;
    const auto size = random.chance(50) ? SIZE_MAX : random.below(3000);
    tell("page " + to_string(&page - pages.data()) + " reads");
    pageReads(page, size);
    if (page.peer != nullptr && random.chance(50)) ack(*page.peer, page.handled);
}

void World::pageReads(Page& page, std::size_t size) {
    auto& peer = *page.peer;
    peer.read += std::min<std::uint64_t>(size, peer.written - peer.read);
    while (!peer.inbox.empty() && peer.inbox.front().end <= peer.read && page.peer == &peer) {
        const auto arrived = peer.inbox.front();
        peer.inbox.pop_front();
        hear(page, arrived);
    }
    if (page.peer == &peer && peer.isShut && peer.read == peer.written) page.peer = nullptr;
}

void World::hear(Page& page, const Arrived& arrived) {
    auto& peer = *page.peer;
    if (arrived.isHello) {
        page.view = peer.mayReturn ? peer.view->name : "";
        if (!peer.greeting.isReturn) {
            page.handled = 0;
            page.refused.clear();
        }
    }
    page.handled = std::max(page.handled, arrived.upTo);
    if (arrived.block != nullptr) page.unanswered.push_back(arrived);
    auto* conn = connOf(peer);
    if (arrived.isPing && conn != nullptr) conn->pong();
    if (!arrived.isClose) return;
    if (peer.closeCode != 4004) page.view.clear();
    peer.sayings.clear();
    if (conn != nullptr) conn->onEnd(true);
    page.peer = nullptr;
}

void World::answerBlocks() {
    auto& page = anyPage();
    if (page.peer == nullptr) return;
    tell("page " + to_string(&page - pages.data()) + " answers blocks");
    pageAnswers(page, random.between(1, 4), 85);
}

void World::pageAnswers(Page& page, std::size_t most, std::size_t willing) {
    for (; most > 0 && !page.unanswered.empty(); --most) {
        const auto block = page.unanswered.front();
        page.unanswered.pop_front();
        const bool ok = random.chance(willing);
        if (!ok) page.refused.push_back(block.upTo);
        answer(*page.peer, block.transfer, ok);
    }
}

void World::endPage() {
    auto& page = anyPage();
    if (page.peer == nullptr) return;
    auto& peer = *page.peer;
    const auto how = random.below(4);
    static const std::array<const char*, 4> kHows{"is cut off", "vanishes", "closes", "gives up"};
    tell("page " + to_string(&page - pages.data()) + " " + kHows[how]);
    if (how == 0) peer.isBroken = true;
    if (how == 2) page.view.clear();
    if (how >= 2) {
        Saying saying;
        saying.kind = how == 2 ? Saying::Kind::kClose : Saying::Kind::kGivenUp;
        peer.sayings.push_back(std::move(saying));
    }
    page.peer = nullptr;
}

void World::pump(Page& page) {
    if (page.peer == nullptr) return;
    auto& peer = *page.peer;
    pageReads(page, SIZE_MAX);
    if (page.peer == nullptr) return;
    pageAnswers(page, SIZE_MAX, 95);
    if (peer.view != nullptr && page.handled > peer.view->acknowledged) ack(peer, page.handled);
    if (const auto conn = conns[peer.index]) conn->read(SIZE_MAX);
}

}  // namespace simulate
