#include <algorithm>
#include <array>

#include "Buffers.hpp"
#include "Memory.hpp"
#include "World.hpp"

namespace simulate {
namespace {

using std::to_string;
using std::chrono::milliseconds;
using Part = Item::Part;

const std::array<std::string, 8> kChannels{"/a/1", "/a/2",      "/b",     "/c/x",
                                           "",     "/\xc3\xbc", "/b\x1e", "/no"};
const std::array<std::size_t, 5> kBlockStreams{0, 1, 2, 3, 5};

}  // namespace

std::string World::anyChannel() { return random.from(kChannels); }

void World::step() {
    static constexpr struct {
        unsigned weight;
        void (World::*run)();
    } kSteps[] = {
        {16, &World::publishTexts},  {10, &World::publishBlock}, {8, &World::join},
        {6, &World::comeBack},       {10, &World::speak},        {3, &World::lie},
        {14, &World::readPage},      {8, &World::answerBlocks},  {5, &World::endPage},
        {14, &World::readAsGateway}, {12, &World::serveSome},    {3, &World::hearInbound},
        {10, &World::pass},          {1, &World::inspect},
    };
    unsigned all = 0;
    for (const auto& each : kSteps) all += each.weight;
    auto at = random.below(all);
    for (const auto& each : kSteps) {
        if (at < each.weight) return (this->*each.run)();
        at -= each.weight;
    }
}

// --- The engine --------------------------------------------------------------------------------

void World::publishTexts() {
    const auto count = random.chance(70) ? 1 : random.between(2, 40);
    const auto channel = anyChannel();
    for (std::size_t i = 0; i < count && model->failure.empty(); ++i) {
        const auto chosen = random.below(1000);
        const auto size = chosen < 600   ? random.below(60)
                          : chosen < 900 ? random.below(2000)
                          : chosen < 995 ? random.below(40000)
                          : chosen < 999 ? random.below(300000)
                                         : random.below(9000000);
        const auto kind = static_cast<unsigned>(random.chance(80) ? 0 : random.between(1, 3));
        publishText(random.chance(80) ? channel : anyChannel(), size, kind);
    }
}

void World::publishText(std::string channel, std::size_t size, unsigned kind) {
    static const std::array<const char*, 4> kFillings{"", "\xc3\xa9", "\xff", "\x1e"};
    const memory::Spared spared;
    if (arriving != nullptr && arriving->view == nullptr) bindView(*arriving);
    auto content = "T" + to_string(model->items.size() + 1) + kFillings[kind];
    content.resize(std::max(content.size(), size), 'x');
    const auto& item = model->publish(std::move(channel), std::move(content), false, kind < 2);
    tell("text " + to_string(item.id) + " on \"" + item.channel + "\", " +
         to_string(item.content.size()) + " bytes");
    const relay::Publication message(item.channel, item.content);
    asGateway(*this, [&] { fanout->messagePublished(message); });
}

void World::publishBlock() {
    const auto chosen = random.below(100);
    const auto size = 8 + (chosen < 60   ? random.below(300)
                           : chosen < 90 ? random.below(5000)
                                         : random.below(chosen < 98 ? 60000 : 1000000));
    const auto stream = random.from(kBlockStreams);
    static const std::array<const char*, 6> kNames{"/a/1", "/a/2", "/b", "/c/x", "", "/no"};
    auto id = model->items.size() + 1;
    std::string content(size, static_cast<char>('a' + id % 26));
    for (std::size_t i = 0; i < 8; ++i, id >>= 8U) content[i] = static_cast<char>(id & 0xffU);
    auto& item = model->publish(kNames[stream], std::move(content), true, true);
    tell("block " + to_string(item.id) + " on \"" + item.channel + "\", " + to_string(size) +
         " bytes");
    auto future = streams[stream]->send(support::bufferOf(item.content));
    static_cast<void>(future.then([this, &item](auto&& result) {
        const memory::Spared spared;
        item.isDelivered = result.get().delivered;
        ++item.completions;
        tell("block " + to_string(item.id) + (item.isDelivered ? " is delivered" : " comes back"));
        // An engine may send the next thing at once.
        if (depth > 0 || !random.chance(20)) return;
        ++depth;
        publishText(anyChannel(), random.below(100), 0);
        --depth;
    }));
}

void World::hearInbound() {
    const auto count = random.below(heard.size() + 1);
    heard.erase(heard.begin(), heard.begin() + static_cast<std::ptrdiff_t>(count));
}

void World::inspect() {
    try {
        asGateway(*this, [this] { static_cast<void>(views->diagnostics(now)); });
    } catch (const std::bad_alloc&) {
        memory::stopFailing();
    }
    std::size_t there = 0;
    for (const auto& view : model->views) there += view.where == Where::kConnected ? 1 : 0;
    model->expect(views->statistics().pages <= there, "pages that are not there are counted");
}

// --- The gateway -------------------------------------------------------------------------------

void World::readAsGateway() {
    if (conns.empty()) return;
    const auto conn =
        conns[conns.size() - 1 - random.below(std::min<std::size_t>(conns.size(), 8))];
    if (conn == nullptr) return;
    tell("the gateway reads");
    conn->read(random.chance(60) ? SIZE_MAX : random.between(1, 200));
}

void World::serveSome() {
    tell("the gateway serves");
    if (random.chance(50)) return serveAll();
    asGateway(*this, [this] { wakeup->serveAll(); });
    if (conns.empty()) return;
    const auto conn = conns[random.below(conns.size())];
    if (conn == nullptr) return;
    conn->tail();
    conn->writable();
}

void World::pass() {
    const auto chosen = random.below(100);
    const auto& limits = options.limits;
    const auto time = chosen < 50   ? milliseconds(random.between(0, 3))
                      : chosen < 85 ? milliseconds(random.between(1, 1000))
                                    : milliseconds(random.between(1000, 90000));
    tell("time passes: " + to_string(time.count()) + " ms");
    // Either the gateway looks at it every now and then, or everything stood still.
    const auto shortest = std::min({limits.gone, limits.block, limits.ping, limits.queue});
    advance(time, random.chance(80) ? std::max(shortest / 2, time / 40) : time + milliseconds(1));
}

// --- The end -----------------------------------------------------------------------------------

void World::finish() {
    stepNumber = 0;
    failPercent = 0;
    depth = 1;  // the engine only publishes what it is told to
    tell("everybody reads and answers");
    drain();
    if (!model->failure.empty()) return;
    tell("everything ends");
    if (random.chance(50)) {
        model->isShut = true;
        views->shut();
        look();
        model->expect(model->open.empty(), "a block is not completed by the end");
    }
    for (auto& page : pages) {
        if (page.peer != nullptr && random.chance(50)) page.peer->isBroken = true;
        page.peer = nullptr;
    }
    runOut();
}

void World::drain() {
    for (auto& page : pages) {
        page.isLively = true;
        if (page.peer == nullptr && !page.view.empty()) returnTo(page, page.handled);
    }
    int calm = 0;
    for (int i = 0; model->failure.empty() && calm < 40 && i < 2000; ++i, ++calm) {
        heard.clear();
        for (auto& peer : peers) peer.capacity = 50000000;
        advance(milliseconds(5), milliseconds(5));
        for (const auto& page : pages) {
            if (page.peer != nullptr && !page.peer->sayings.empty()) calm = 0;
        }
    }
    for (const auto& page : pages) {
        if (page.peer == nullptr || page.peer->isEnded || page.peer->view == nullptr) continue;
        const auto& peer = *page.peer;
        const auto name = "page " + to_string(&page - pages.data());
        if (!peer.sayings.empty()) model->fail(name + " is not read from any more");
        if (!peer.expectedControls.empty() && !peer.isControlVague) {
            model->fail(name + " got no answer: " + peer.expectedControls.front());
        }
        model->lookAtDrained(*peer.view);
    }
    model->expect(expectedInbound.empty(), "what a page said was not heard");
    model->expect(isTight ? blocksHeard <= blocksSaid : blocksHeard == blocksSaid,
                  "a page's block was not heard");
}

void World::runOut() {
    const auto& limits = options.limits;
    // Nobody reads any more, so that sockets take a little and no more. While one takes a long
    // frame its page counts as heard, for as long as that lasts.
    for (auto& peer : peers) peer.capacity = peer.written - peer.read + 65536;
    const auto all = 4 * limits.ping + limits.comeback + limits.close + limits.hello + limits.block;
    advance(all + milliseconds(1000), all / 60);
    heard.clear();
    publishText("/b", 0, 0);  // those who heard the last one are known until then
    serveAll();
    for (const auto& conn : conns) model->expect(conn == nullptr, "a connection does not end");
    model->expect(views->isEmpty(), "a view does not end");
    model->expect(model->open.empty(), "a block is never completed");
    model->expect(context->memory->used() == 0, "memory is still counted at the end");
    model->expect(context->lostMemory->used() == 0, "memory of lost views is still counted");
}

}  // namespace simulate
