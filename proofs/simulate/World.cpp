#include "World.hpp"

#include <sys/types.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <cstring>

#include "Clock.hpp"
#include "Memory.hpp"
#include "WebSocketFrame.hpp"

using namespace kirogateway;
using namespace simulate;
using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::createBinaryStream;
using relay::binary::experimental::Delivery;
using std::chrono::milliseconds;

// --- In place of the gateway's clock and socket, and of the system's random numbers ------------

namespace kirogateway {

std::chrono::steady_clock::time_point timeNow() noexcept { return currentWorld()->now; }

std::ptrdiff_t Socket::write(const Bytes& bytes, std::size_t most) noexcept {
    const memory::Spared spared;
    return currentWorld()->write(*this, bytes, most);
}
void Socket::shutdownWriting() noexcept { currentWorld()->peerOf.at(this)->isShut = true; }
void Socket::shutdown() noexcept { currentWorld()->peerOf.at(this)->isShut = true; }

}  // namespace kirogateway

extern "C" ssize_t getrandom(void* bytes, std::size_t size, unsigned /*flags*/) {
    auto* world = currentWorld();
    for (std::size_t i = 0; i < size; ++i) {
        static_cast<unsigned char*>(bytes)[i] = static_cast<unsigned char>(world->random.next());
    }
    return static_cast<ssize_t>(size);
}

namespace simulate {

World*& currentWorld() {
    static World* world = nullptr;
    return world;
}

// --- A connection ------------------------------------------------------------------------------

Conn::Conn(World& world, Peer& peer, std::shared_ptr<Socket> socket, bool isDirect)
    : fWorld(world),
      fPeer(peer),
      fSocket(std::move(socket)),
      fIsDirect(isDirect),
      fDeadline(world.now + world.options.limits.hello) {
    fSession.emplace(*world.services, ViewRegistry::Arrival{*this, fSocket, isDirect});
}

Conn::~Conn() { fSession->ended(false, fWorld.now); }

template <typename Call>
void Conn::guard(const Call& call) noexcept {
    if (fIsDropped) return;
    try {
        call();
    } catch (...) {
        drop();
    }
}

void Conn::request(Request what) noexcept {
    fWorld.wakeup->request(*this, what, [this] { return weak_from_this().lock(); });
}

void Conn::serve(unsigned what) noexcept {
    guard([&] {
        if ((what & kFailed) != 0) fSession->viewFailed();
        if ((what & kWrite) != 0) fWaitsWritable = true;
        if ((what & kTail) != 0) fTailAt = fWorld.now + std::chrono::microseconds(200);
    });
}

void Conn::close(std::uint16_t code, std::string_view reason, std::string rest) noexcept {
    const memory::Spared spared;
    if (fIsClosing || fIsDropped) return;
    fIsClosing = true;
    fDeadline = fWorld.now + fWorld.options.limits.close;
    fHasDeadline = true;
    const auto tookAt = fPeer.tookAt;
    fPeer.accept(rest);
    fPeer.model.expect(!fPeer.isWithinFrame() || fPeer.isBroken, "a close frame within a frame");
    fPeer.accept(makeCloseFrame(code, reason));
    fPeer.tookAt = tookAt;  // this is no page that takes something
    fPeer.closeCode = code;
    fPeer.closeReason = reason;
    fPeer.isEnded = true;
    fPeer.isHeld = false;
}

void Conn::cut() noexcept {
    fPeer.isCut = true;
    drop();
}

void Conn::drop() noexcept {
    if (fIsDropped) return;
    fIsDropped = true;
    fPeer.isEnded = true;
    fSession->ended(false, fWorld.now);
    fPeer.isShut = true;
}

void Conn::onEnd(bool wasClosed) {
    if (fIsDropped || fHasEnded) return;
    fHasEnded = true;
    fPeer.wasClosed = wasClosed;
    fPeer.isEnded = true;
    fSession->ended(wasClosed, fWorld.now);
    fPeer.isShut = true;
}

void Conn::read(std::size_t size) {
    while (size > 0 && !fIsDropped && !fHasEnded) {
        using Kind = Saying::Kind;
        const bool isOver = fPeer.isBroken && !fPeer.isHeld;
        if (isOver || (fIsClosing && !fPeer.sayings.empty())) {
            const bool wasClosed = !isOver && fPeer.sayings.back().kind == Kind::kClose;
            fPeer.sayings.clear();
            return isOver || wasClosed ? onEnd(wasClosed) : void();
        }
        if (fPeer.isHeld || fPeer.sayings.empty()) return;
        const auto reading = fSession->mayRead();
        fAsksAgain = reading == Session::Reading::kLater;
        fPeer.isHeld = reading != Session::Reading::kNow;
        if (fPeer.isHeld) return;
        const auto kind = fPeer.sayings.front().kind;
        if (kind == Kind::kClose || kind == Kind::kGivenUp) return onEnd(kind == Kind::kClose);
        auto& front = fPeer.sayings.front();
        const auto most = front.isAtOnce ? front.bytes.size() : size;
        const auto piece = front.bytes.substr(front.read, most);
        size -= std::min(size, std::max<std::size_t>(piece.size(), 1));
        front.read += piece.size();
        Saying saying{{}, front.kind, false, 0, front.takesEffect, front.isLost};
        const bool isLast = front.read == front.bytes.size();
        if (isLast) fPeer.sayings.pop_front();
        readPiece(saying, piece, isLast);
    }
}

void Conn::readPiece(const Saying& saying, std::string_view piece, bool isLast) {
    if (fPeer.view != nullptr) fPeer.view->heardAt = fWorld.now;
    if (isLast && saying.takesEffect) saying.takesEffect();
    fWorld.arriving = &fPeer;
    asGateway(fWorld, [&] {
        guard([&] {
            saying.kind == Saying::Kind::kText ? fSession->text(piece, isLast, fWorld.now)
                                               : fSession->binary(piece, isLast, fWorld.now);
        });
    });
    fWorld.arriving = nullptr;
    if (fSession->view() != nullptr) {
        fHasDeadline = fIsClosing;
        if (fPeer.view == nullptr) fWorld.bindView(fPeer);
    }
    if (fIsDropped && isLast && saying.isLost) saying.isLost();
    fWorld.model->look(false);
}

void Conn::pong() {
    if (fIsDropped || fHasEnded || fIsClosing) return;
    fSession->heard(fWorld.now);
    if (fPeer.view != nullptr) fPeer.view->heardAt = fWorld.now;
}

void Conn::writable() {
    if (!fWaitsWritable || fIsDropped || (fPeer.room() == 0 && !fPeer.isBroken)) return;
    fWaitsWritable = false;
    if (!fIsDirect) return pump();
    auto* view = fSession->viewHere();
    fWorld.isWriting = true;
    if (view != nullptr) asGateway(fWorld, [view] { view->writeMore(); });
    fWorld.isWriting = false;
}

bool Conn::isHeeded() const {
    const auto* view = fSession->viewHere();
    const bool isOver = view == nullptr || view->failure() != nullptr || fPeer.isEnded;
    if (isOver || fPeer.isBroken || fPeer.view == nullptr || fWaitsWritable || fTailAt) return true;
    return std::ranges::none_of(fPeer.view->lanes, [](const auto& lane) {
        return !lane.empty() && !lane.front().isOptional && !lane.front().item->isBlock;
    });
}

void Conn::pump() {
    auto* view = fIsClosing ? nullptr : fSession->viewHere();
    while (view != nullptr && fSession->viewHere() == view) {
        if (fPeer.isBroken) return;
        fWaitsWritable = fPeer.room() == 0;
        if (fWaitsWritable) return;
        std::string bytes;
        bool isMore = false;
        const auto most = std::min<std::size_t>(fPeer.room(), 128UL * 1024);
        asGateway(fWorld, [&] { guard([&] { isMore = view->collect(bytes, most); }); });
        // Where memory runs out the view still counts as sent what it has handed over.
        const bool isShut = std::exchange(fPeer.isShut, false);
        fPeer.accept(bytes);
        fPeer.isShut = isShut;
        if (fIsDropped || !isMore) return;
    }
}

void Conn::tail() {
    if (!fTailAt || *fTailAt > fWorld.now || fIsDropped) return;
    fTailAt.reset();
    auto* view = fSession->viewHere();
    bool goesOn = false;
    fWorld.isWriting = true;
    if (view != nullptr) asGateway(fWorld, [&] { goesOn = view->writeTail(fWorld.now); });
    fWorld.isWriting = false;
    if (goesOn) fTailAt = fWorld.now + milliseconds(1);
}

void Conn::checkTime() {
    if (fIsDropped) return;
    if (fAsksAgain) readOn();
    if (!fHasDeadline || fWorld.now < fDeadline || fHasEnded) return;
    if (!fSession->isOver() && fSession->view() == nullptr) {
        fPeer.hasLied = true;
        return fSession->helloOverdue();
    }
    drop();
}

// --- The world ---------------------------------------------------------------------------------

namespace {

/// Bounds that are reached within a few steps.
Limits limitsOf(Random& random, bool isTight) {
    Limits limits;
    const auto time = [&](std::size_t least, std::size_t most) {
        return milliseconds(random.between(least, most));
    };
    limits.pieceSize = random.pick<std::size_t>({64, 100, 1000, 4194304});
    limits.batchSize = random.pick<std::size_t>({100, 1000, 65536});
    limits.blocksUnderWay = random.between(1, 4);
    limits.bytesUnderWay = random.pick<std::size_t>({200, 3000, 100000});
    limits.lostViews = random.between(1, 4);
    limits.subscriptions = random.between(2, 8);
    limits.namesPerFrame = random.between(6, 16);
    limits.undelivered = random.pick<std::size_t>({100, 10000});
    limits.queueSize = random.pick<std::size_t>({3000, 50000, 1048576});
    limits.queue = time(1000, 10000);
    limits.block = time(500, 10000);
    limits.ping = time(1000, 10000);
    limits.gone = time(50, 1500);
    limits.comeback = time(2000, 60000);
    limits.hello = time(500, 5000);
    limits.close = time(500, 2000);
    limits.memory = isTight ? random.between(100000, 600000) : 1UL << 30U;
    limits.lostMemory = isTight ? random.between(5000, 100000) : 1UL << 28U;
    return limits;
}

}  // namespace

World::World(std::uint64_t theSeed, bool isToldOne)
    : seed(theSeed), random(theSeed, 0), isTold(isToldOne) {
    currentWorld() = this;
    const bool isScarce = random.chance(25);
    failPercent = random.chance(30) ? random.between(1, 20) : 0;
    isTight = isScarce || failPercent > 0;
    isEager = random.chance(50);
    stepCount = random.between(20, 300);
    options.limits = limitsOf(random, isScarce);
    options.maySubscribe = {"/a/*", "/b", "/c/*", "", "/\xc3\xbc"};
    options.mayPublish = {"/in/*"};
    options.lanes = random.pick<std::vector<std::vector<std::string>>>(
        {{}, {{"/a/*"}}, {{"/a/1"}, {"/c/*", "/b"}}});
    options.newViewChannel = random.chance(50) ? "/new" : "";
    options.reconnectChannel = "/new";
    options.onLastPageGone = [this] { ++timesGone; };
    model.emplace(options, now, isTight);
    context = std::make_shared<Context>(options);
    wakeup = std::make_shared<Wakeup>();
    inbound.emplace(context);
    views = std::make_shared<ViewRegistry>(context, wakeup, *inbound, options.onLastPageGone);
    fanout = std::make_shared<Fanout>(context, views);
    services.emplace(SessionServices{context, views, *inbound});
    end = std::make_unique<ClientEnd>("/*", [this](Delivery delivery) {
        asGateway(*this, [&] { fanout->offer(std::move(delivery)); });
    });
    bus.emplace(*this, end.get(), context);
    inbound->connect(*bus);
    for (const char* channel : {"/a/1", "/a/2", "/b", "/c/x", "/in/block", "/no"}) {
        streams.push_back(createBinaryStream(channel, {{"returnOnFail", "true"}}));
    }
    streams[4]->receive([this](relay::common::DataBuffer&&) { ++blocksHeard; });
    pages.resize(random.between(1, 6));
    for (auto& page : pages) page.isLively = random.chance(40);
}

World::~World() {
    heard.clear();
    conns.clear();
    streams.clear();
    end.reset();
}

void World::tell(const std::string& what) {
    if (!isTold) return;
    const auto seconds = std::chrono::duration<double>(now.time_since_epoch()).count() - 3600e3;
    std::printf("  step %zu, %.6f s: %s\n", stepNumber, seconds, what.c_str());
}

void World::deliver(const std::string& channel, relay::Publication::Text text,
                    std::shared_ptr<const void> ticket) {
    Heard one{channel, std::move(text), std::move(ticket)};
    heard.push_back(one);  // without memory nothing is queued, and nothing is noted
    const memory::Spared spared;
    if (channel == "/new") {
        ++announced;
    } else if (expectedInbound.empty() || expectedInbound.front().first != channel ||
               expectedInbound.front().second != *one.text) {
        model->fail("the engine hears what no page said: " + channel + " " +
                    one.text->substr(0, 40));
    } else {
        expectedInbound.pop_front();
    }
}

std::ptrdiff_t World::write(const Socket& socket, const Socket::Bytes& bytes, std::size_t most) {
    Peer& peer = *peerOf.at(&socket);
    auto* conn = conns[peer.index].get();
    model->expect(!peer.isLetGo, "a write to a descriptor that was let go");
    model->expect(conn != nullptr && !peer.isEnded, "a write to a connection that is over");
    if (peer.isBroken) return -1;
    if (peer.view == nullptr) bindView(peer);
    std::string all;
    for (const auto stretch : bytes) {
        all += stretch.substr(0, most);
        if (stretch.size() > most) break;
    }
    if (random.chance(30)) all.resize(random.below(all.size()) + 1);
    all.resize(std::min(all.size(), peer.room()));
    // A publisher comes in between: this thread holds no lock.
    if (isWriting && depth == 0 && random.chance(10)) {
        const auto before = all.size();
        ++depth;
        publishText(anyChannel(), random.below(200), 0);
        --depth;
        std::string after;
        for (const auto stretch : bytes) after += stretch.substr(0, most);
        model->expect(after.starts_with(all) && before == all.size(),
                      "bytes changed while written");
    }
    peer.accept(all);
    return static_cast<std::ptrdiff_t>(all.size());
}

void World::bindView(Peer& peer) {
    const auto* conn = conns[peer.index].get();
    const auto all = views->views();
    for (const auto& view : *all) {
        if (view->connection() != conn) continue;
        for (auto& known : model->views) {
            if (known.view.lock() == view) peer.view = &known;
        }
        if (peer.view == nullptr) {
            auto& made = model->views.emplace_back();
            made.index = model->views.size() - 1;
            made.lanes.resize(options.lanes.size() + 1);
            made.view = view;
            peer.view = &made;
        }
        auto& bound = *peer.view;
        bound.peer = &peer;
        bound.where = Where::kConnected;
        bound.heardAt = now;
        bound.takenWithin = 0;
        bound.isPerhapsWithin = false;
        peer.tookAt = now;
        bound.mayReturn = peer.mayReturn;
        bound.maxBlock = peer.maxBlock;
        if (!peer.greeting.isReturn) {
            for (const auto& name : peer.greeting.subscribed) bound.subscriptions[name] = true;
        }
        return;
    }
}

void World::look(bool isTick) {
    // Let go of what nothing waits for.
    for (auto& conn : conns) {
        if (conn != nullptr && conn->isDone()) conn.reset();
    }
    model->look(isTick);
    model->expect(views->lastPageGone() == model->isLastGone, "lastPageGone is wrong");
    const auto more = timesGone - model->timesGone;  // one that begins anew ends its view first
    model->expect(more <= model->badReturns, "onLastPageGone was called at the wrong time");
    const auto slack = 400000 + model->endingBytes();
    if (isTick) {
        model->afterTick();
        model->expect(!context->lostMemory->isExceeded(),
                      "more is kept for lost views than may be");
    }
    model->expect(context->memory->used() <= options.limits.memory + slack, "memory is exceeded");
}

void World::serveAll() {
    asGateway(*this, [this] { wakeup->serveAll(); });
    for (const auto& conn : conns) {
        model->expect(conn == nullptr || conn->isHeeded(), "a text waits for nothing");
    }
    for (std::size_t i = 0; i < conns.size(); ++i) {
        const auto conn = conns[i];
        if (conn == nullptr) continue;
        conn->tail();
        conn->writable();
    }
    look();
}

void World::tick() {
    look();
    model->beforeTick();
    asGateway(*this, [this] { views->tick(now); });
    for (std::size_t i = 0; i < conns.size(); ++i) {
        const auto conn = conns[i];
        if (conn != nullptr) conn->checkTime();
    }
    look(true);
}

void World::advance(std::chrono::microseconds time, milliseconds period) {
    const auto until = now + time;
    while (now < until && model->failure.empty()) {
        now = std::min<TimePoint>(now + period, until);
        for (auto& page : pages) {
            if (page.isLively) pump(page);
        }
        serveAll();
        tick();
    }
}

std::string World::run(const std::vector<bool>& keep, Figures& figures) {
    const auto failedBefore = memory::failures();
    const auto begin = now;
    for (stepNumber = 1; stepNumber <= stepCount && model->failure.empty(); ++stepNumber) {
        if (!keep.empty() && !keep[stepNumber - 1]) continue;
        random = Random(seed, stepNumber);
        step();
        if (isEager) serveAll();
        look();
        ++figures.steps;
    }
    random = Random(seed, 1000000);
    if (model->failure.empty()) finish();
    ++figures.schedules;
    figures.failures += memory::failures() - failedBefore;
    figures.time += now - begin;
    figures.messages += model->items.size();
    figures.returns += context->counters->returns;
    return model->failure;
}

}  // namespace simulate
