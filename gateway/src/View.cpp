#include "View.hpp"

#include <algorithm>
#include <utility>

#include "Clock.hpp"
#include "WebSocketFrame.hpp"
#include "checked/Require.hpp"

namespace kirogateway {
namespace {

/// A frame for each text takes about 5 microseconds of the publisher's time, and ten times as much
/// of the page's. So many texts may go alone one after the other, and one in each such time.
constexpr int kCredit = 16;
constexpr std::chrono::milliseconds kEarnedIn{1};
/// How much a publisher writes before the gateway's thread goes on, and how much that thread does
/// before it looks after other pages.
constexpr std::size_t kPublisherWrites = 256UL * 1024;
constexpr std::size_t kGatewayWrites = 1024UL * 1024;
/// Answers to a page that asks and does not read them.
constexpr std::size_t kMostAnswers = 1024UL * 1024;
/// The rest of a frame that is sent to say good-bye behind it. Of a larger one the page gets no
/// more, and learns the reason when it asks to return.
constexpr std::size_t kMostRest = 8UL * 1024 * 1024;
constexpr int kSilencesUntilLost = 3;

bool isEmpty(const Outbox::Pending& pending) {
    return std::ranges::all_of(pending, [](std::string_view stretch) { return stretch.empty(); });
}

}  // namespace

View::View(Identity identity, Abilities abilities, std::shared_ptr<const Context> context,
           std::shared_ptr<Wakeup> wakeup, std::size_t lanes, TimePoint now)
    : fIdentity(std::move(identity)),
      fContext(std::move(context)),
      fLimits(fContext->options.limits),
      fBacklog(std::make_shared<Backlog>(fLimits.undelivered, std::move(wakeup))),
      fLastSign(now),
      fAbilities(abilities),
      fOutbox(fLimits, lanes, abilities.mayReturn, fContext->memory),
      fPace(fLimits.queueSize, fLimits.queue) {}

// --- Publishing threads ------------------------------------------------------------------------

View::~View() { fContext->memory->removeEnding(fEnding); }

Outbox::Added View::publish(const Text& text, bool isRoomMade) noexcept {
    annotated::Lock lock(fMutex);
    if (fFailure != nullptr || state() == State::kOver) return Outbox::Added::kNever;
    try {
        // To ask the clock takes longer than to copy a text; in a burst the last look is recent.
        const auto now = fIsTailLater ? fLookedAt : timeNow();
        const auto added = fOutbox.addText(text, isRoomMade);
        if (added == Outbox::Added::kYes) pushLocked(now);
        noteHeldLocked();
        return added;
    } catch (...) {
        failLocked("no memory for the queue");
        return Outbox::Added::kYes;  // it heard it, and ends for it
    }
}

View::Part View::offer(std::string_view channel, std::size_t lane,
                       const std::shared_ptr<Transfer>& transfer, TimePoint now,
                       bool isRoomMade) noexcept {
    annotated::Lock lock(fMutex);
    try {
        if ((!isThere() && state() != State::kNew) || !fSubscriptions.matches(channel))
            return Part::kNone;
        const auto size = transfer->bytes().size();
        if (fFailure != nullptr || size > fAbilities.maxBlock) return Part::kRefused;
        switch (fOutbox.addBlock(lane, channel, transfer, now, isRoomMade)) {
            case Outbox::Added::kYes:
                break;
            case Outbox::Added::kNever:
                return Part::kRefused;
            case Outbox::Added::kNoMemory:
                return Part::kNoMemory;
            case Outbox::Added::kNoLostRoom:
                return Part::kNoLostRoom;
        }
        transfer->join();
        noteHeldLocked();
        if (fConnection != nullptr && !fIsWritingLater) writeLocked();
        return Part::kJoined;
    } catch (...) {
        failLocked("no memory for the queue");
        return Part::kRefused;
    }
}

bool View::hears(std::string_view channel) const {
    annotated::Lock lock(fMutex);
    return fFailure == nullptr && state() != State::kOver && fSubscriptions.matches(channel);
}

void View::pushLocked(TimePoint now) noexcept {
    if (fConnection == nullptr || fIsWritingLater) return;
    if (mayGoAloneLocked(now)) {
        writeLocked();
    } else if (!fIsTailLater) {
        fIsTailLater = true;
        fLookedAt = now;
        fConnection->request(Connection::kTail);
    }
}

bool View::mayGoAloneLocked(TimePoint now) noexcept {
    const auto all = now - kCredit * kEarnedIn;
    if (fHasSpoken) {
        fHasSpoken = false;
        fSpentUntil = all;
    }
    fSpentUntil = std::max(fSpentUntil, all);
    if (fSpentUntil >= now) return false;
    fSpentUntil += kEarnedIn;
    return true;
}

void View::writeLocked() noexcept {
    std::size_t total = 0;
    while (fIsDirect && total < kPublisherWrites) {
        const auto pending = pendingLocked();
        if (isEmpty(pending)) return;
        const auto sent = fSocket->write(pending, kPublisherWrites);
        if (sent < 0) return;
        if (sent == 0) break;
        fOutbox.written(static_cast<std::size_t>(sent));
        total += static_cast<std::size_t>(sent);
    }
    fIsWritingLater = true;
    fConnection->request(Connection::kWrite);
}

void View::fail(const char* why) noexcept {
    annotated::Lock lock(fMutex);
    failLocked(why);
}

void View::failLocked(const char* why) noexcept {
    if (fFailure != nullptr || state() == State::kOver) return;
    fFailure = why;
    fOutbox.forgetTexts();  // blocks are left by the gateway's thread, which holds no lock then
    fEnding = fOutbox.bytes();
    fContext->memory->addEnding(fEnding);
    fHeld = 0;
    if (fConnection != nullptr) fConnection->request(Connection::kFailed);
}

Outbox::Pending View::pendingLocked() noexcept {
    if (fFailure != nullptr && !fOutbox.isWithinFrame()) return {};
    return fOutbox.pending();
}

void View::noteHeldLocked() noexcept {
    fHeld.store(fFailure != nullptr ? 0 : fOutbox.bytes(), std::memory_order_relaxed);
}

// --- Coming and going --------------------------------------------------------------------------

void View::attach(Connection& connection, std::shared_ptr<Socket> socket, bool isDirect,
                  Greeting&& greeting, TimePoint now) noexcept {
    heard(now);
    annotated::Lock lock(fMutex);
    KIROWEB_REQUIRE(fConnection == nullptr);
    fConnection = &connection;
    fSocket = std::move(socket);
    fIsDirect = isDirect;
    fIsWritingLater = false;
    fIsTailLater = false;
    fIsPinged = false;
    fTakenInFrame = 0;
    fState = State::kConnected;
    fPace.restart(now);
    fOutbox.begin(std::move(greeting.hello), greeting.channelsNamed, fAbilities.mayReturn);
    if (fFailure != nullptr) fConnection->request(Connection::kFailed);
    noteHeldLocked();
}

void View::resume(const wire::Hello& hello, PageBlocks& left) noexcept {
    annotated::Lock lock(fMutex);
    KIROWEB_REQUIRE(fConnection == nullptr);
    fOutbox.resume(hello.last, hello.refused, left);
    fAbilities = {hello.resume, hello.maxBlock};
}

bool View::canResume(std::uint64_t last) const {
    annotated::Lock lock(fMutex);
    return state() != State::kOver && fFailure == nullptr && fOutbox.canResume(last);
}

void View::detachLocked(TimePoint now, Fate fate) noexcept {
    if (fConnection == nullptr) return;
    fConnection = nullptr;
    fSocket = nullptr;
    fIsTailLater = false;
    fIsWritingLater = false;
    fLostAt = now;
    fState = State::kLost;
    fBacklog->setReader(nullptr);
    fOutbox.detach();
    if (fate == Fate::kMayReturn) fOutbox.countAsLost(fContext->lostMemory);
    noteHeldLocked();
}

void View::detach(TimePoint now, Fate fate) noexcept {
    annotated::Lock lock(fMutex);
    detachLocked(now, fate);
}

View::Rest View::detachBetweenFrames(TimePoint now, Fate fate) noexcept {
    annotated::Lock lock(fMutex);
    Rest rest;
    std::size_t size = 0;
    for (const auto stretch : fOutbox.isWithinFrame() ? fOutbox.pending() : Outbox::Pending{}) {
        size += stretch.size();
    }
    try {
        rest.isCut = size > kMostRest;
        if (!rest.isCut) {
            rest.bytes = fOutbox.restOfFrame();
            fOutbox.written(rest.bytes.size());  // its page may have it all when it comes back
        }
    } catch (...) {
        rest.isCut = true;
    }
    detachLocked(now, fate);
    return rest;
}

Connection* View::connection() const noexcept {
    annotated::Lock lock(fMutex);
    return fConnection;
}

void View::retire(PageBlocks& left) noexcept {
    annotated::Lock lock(fMutex);
    KIROWEB_REQUIRE(fConnection == nullptr);
    fState = State::kOver;
    fOutbox.clear(left);
    fHeld = 0;
}

void View::blocksLeft() noexcept {
    annotated::Lock lock(fMutex);
    fContext->memory->removeEnding(std::exchange(fEnding, 0));
}

// --- Writing -----------------------------------------------------------------------------------

void View::write() noexcept {
    {
        annotated::Lock lock(fMutex);
        if (fConnection == nullptr || fIsWritingLater) return;
        fIsWritingLater = true;
    }
    writeMore();
}

void View::writeMore() noexcept {
    std::shared_ptr<Socket> socket;
    std::size_t total = 0;
    std::size_t sent = 0;
    for (bool isFull = false;;) {
        Outbox::Pending pending;
        {
            annotated::Lock lock(fMutex);
            if (fConnection == nullptr) return;
            fOutbox.written(sent);
            noteHeldLocked();
            pending = pendingLocked();
            if (isEmpty(pending)) {
                fIsWritingLater = false;
                return;
            }
            if (!fIsDirect || isFull || total >= kGatewayWrites) {
                return fConnection->request(Connection::kWrite);
            }
            socket = fSocket;
        }
        // Publishers leave the socket alone meanwhile, and go on adding to what waits.
        const auto taken = socket->write(pending, kGatewayWrites);
        if (taken < 0) {
            // Whoever reads learns why; and the next message tries again.
            annotated::Lock lock(fMutex);
            fIsWritingLater = false;
            return;
        }
        sent = static_cast<std::size_t>(taken);
        total += sent;
        isFull = sent == 0;
    }
}

bool View::writeTail(TimePoint now) noexcept {
    {
        annotated::Lock lock(fMutex);
        fIsTailLater = fConnection != nullptr && !fIsWritingLater && !isEmpty(pendingLocked());
        if (!fIsTailLater) return false;
        fLookedAt = now;
        fIsWritingLater = true;
    }
    writeMore();
    return true;
}

bool View::collect(std::string& to, std::size_t size) {
    annotated::Lock lock(fMutex);
    std::size_t total = 0;
    while (total < size) {
        std::size_t taken = 0;
        for (const auto part : pendingLocked()) {
            const auto piece = part.substr(0, size - total - taken);
            to += piece;
            taken += piece.size();
        }
        if (taken == 0) break;
        fOutbox.written(taken);
        total += taken;
    }
    fIsWritingLater = total > 0;
    noteHeldLocked();
    return total > 0;
}

void View::sendControl(std::string_view text) {
    {
        annotated::Lock lock(fMutex);
        if (fConnection == nullptr) return;
        fOutbox.addControl(text);
        noteHeldLocked();
    }
    write();
}

void View::sendFrames(std::string frames) {
    {
        annotated::Lock lock(fMutex);
        if (fConnection == nullptr) return;
        fOutbox.addFrames(std::move(frames));
        noteHeldLocked();
    }
    write();
}

void View::ping() {
    sendFrames(makeFrame(Opcode::kPing, {}));
    annotated::Lock lock(fMutex);
    fIsPinged = true;
}

bool View::hasManyAnswersWaiting() const noexcept {
    annotated::Lock lock(fMutex);
    return fOutbox.controlBytes() > kMostAnswers;
}

// --- What the page says ------------------------------------------------------------------------

void View::setSubscriptions(ChannelList&& subscriptions) noexcept {
    annotated::Lock lock(fMutex);
    std::swap(fSubscriptions, subscriptions);
    countNamesLocked();
}

void View::countNamesLocked() noexcept { fNames.set(fContext->memory, fSubscriptions.bytes()); }

ChannelList View::subscriptions() const {
    annotated::Lock lock(fMutex);
    return fSubscriptions;
}

View::Subscribed View::subscribe(std::string_view channel, std::size_t most) {
    annotated::Lock lock(fMutex);
    const auto before = fSubscriptions.size();
    if (!fSubscriptions.addUpTo(most, channel)) return Subscribed::kRefused;
    if (fSubscriptions.size() == before) return Subscribed::kBefore;
    countNamesLocked();
    return Subscribed::kNow;
}

bool View::unsubscribe(std::string_view channel) {
    annotated::Lock lock(fMutex);
    const auto before = fSubscriptions.size();
    fSubscriptions.remove(channel);
    countNamesLocked();
    return fSubscriptions.size() != before;
}

std::vector<std::string> View::blockChannels() const {
    annotated::Lock lock(fMutex);
    return fOutbox.blockChannels();
}

void View::acknowledge(std::uint64_t last) noexcept {
    annotated::Lock lock(fMutex);
    fOutbox.acknowledge(last);
    noteHeldLocked();
}

void View::answer(std::uint64_t transfer, bool hasBlock, PageBlocks& left) noexcept {
    {
        annotated::Lock lock(fMutex);
        fOutbox.answer(transfer, hasBlock, left);
        noteHeldLocked();
    }
    write();  // what waited for a block to be answered can go on
}

// --- Time --------------------------------------------------------------------------------------

View::Due View::look(TimePoint now, PageBlocks& left) noexcept {
    {
        annotated::Lock lock(fMutex);
        if (fFailure != nullptr) return Due::kFail;
        if (state() == State::kLost || state() == State::kGone) {
            if (now - fLostAt > fLimits.comeback) return Due::kEnd;
            fOutbox.dropBlocksBefore(now - fLimits.block, left);
            if (state() == State::kGone || now - fLostAt <= fLimits.gone) return Due::kNothing;
            fState = State::kGone;
            fOutbox.dropBlocks(left);
            noteHeldLocked();
            return Due::kGone;
        }
        if (state() != State::kConnected) return Due::kNothing;
        fOutbox.dropBlocksBefore(now - fLimits.block, left);
        auto load = fOutbox.load();
        load.isOffered = !isEmpty(fOutbox.pending());  // else the gateway itself holds it back
        if (const char* why = fPace.look(load, now)) {
            failLocked(why);  // while its blocks are told, nobody may look for room with it
            return Due::kFail;
        }
        if (fConnection->isReadingHeld()) heard(now);  // it may well have said something
        // In the middle of a long frame a page gets no ping, and may have nothing to say.
        if (fTakenInFrame != 0 && load.taken != fTakenInFrame) heard(now);
        fTakenInFrame = fOutbox.isWithinFrame() ? load.taken : 0;
        const auto silence = now - fLastSign.load();
        if (silence > kSilencesUntilLost * fLimits.ping) return Due::kSilent;
        const bool isQuiet = silence > fLimits.ping;
        if (isQuiet && !fIsPinged) return Due::kPing;
        fIsPinged = isQuiet;
    }
    write();  // a block that was dropped may have held up others
    return Due::kNothing;
}

const char* View::failure() const noexcept {
    annotated::Lock lock(fMutex);
    return fFailure;
}

bool View::mayReturn() const noexcept {
    annotated::Lock lock(fMutex);
    return fAbilities.mayReturn;
}

View::Report View::report(TimePoint now) const {
    annotated::Lock lock(fMutex);
    const auto load = fOutbox.load();
    return {state(),
            fOutbox.next(),
            fOutbox.acknowledged(),
            fOutbox.bytes(),
            fOutbox.blocksUnderWay(),
            fOutbox.bytesUnderWay(),
            load.waiting,
            std::chrono::duration_cast<std::chrono::milliseconds>(now - fLastSign.load())};
}

}  // namespace kirogateway
