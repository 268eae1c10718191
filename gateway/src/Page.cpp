#include "Page.hpp"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

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

iovec vectorOf(std::string_view bytes) {
    // sendmsg does not write to it. NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
    return {const_cast<char*>(bytes.data()), bytes.size()};
}

/// How many bytes, `most` of the second stretch, the socket took without blocking; 0: none, it is
/// full; -1: it is broken, which whoever reads from the connection learns too.
std::ptrdiff_t put(int socket, const Outbox::Pending& pending, std::size_t most) {
    std::array<iovec, 2> vectors{vectorOf(pending[0]), vectorOf(pending[1].substr(0, most))};
    msghdr message{};
    message.msg_iov = vectors.data();
    message.msg_iovlen = vectors.size();
    for (;;) {
        const auto sent = ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) return sent;
        if (errno == EINTR) continue;
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    }
}

bool isEmpty(const Outbox::Pending& pending) { return pending[0].empty() && pending[1].empty(); }

}  // namespace

Page::Page(Identity identity, const Limits& limits, std::size_t lanes, TimePoint now)
    : fIdentity(std::move(identity)),
      fLimits(limits),
      fLastSign(now),
      fOutbox(limits, lanes, fIdentity.mayReturn) {}

// --- Publishing threads ------------------------------------------------------------------------

bool Page::publish(const Text& text) noexcept {
    annotated::Lock lock(fMutex);
    try {
        if (fIsRetired || !fFailure.empty() || !hearsLocked(text.channel)) return false;
        // To ask the clock takes longer than to copy a text; in a burst the last look is recent.
        const auto now = fIsTailLater ? fLookedAt : std::chrono::steady_clock::now();
        if (fOutbox.addText(text.lane, text.channel, text.text, text.isBase64, now)) {
            pushLocked(now);
        } else {
            failLocked("the queue is full");
        }
    } catch (...) {
        failLocked("no memory for the queue");
    }
    return true;
}

void Page::fail(std::string_view why) noexcept {
    annotated::Lock lock(fMutex);
    failLocked(why);
}

Page::Part Page::offer(std::string_view channel, std::size_t lane,
                       const std::shared_ptr<Transfer>& transfer, TimePoint now) noexcept {
    annotated::Lock lock(fMutex);
    Part part = Part::kRefused;
    try {
        if (fIsRetired || fIsAway || !hearsLocked(channel)) return Part::kNone;
        if (!fFailure.empty() || !takesLocked(transfer->bytes().size())) return part;
        if (!fOutbox.addBlock(lane, channel, transfer, now)) {
            failLocked("the queue is full");
            return part;
        }
        transfer->join();
        part = Part::kJoined;
        if (fCarrier != nullptr && !fIsWritingLater) writeLocked(now);
    } catch (...) {
        failLocked("no memory for the queue");
    }
    return part;
}

bool Page::takesLocked(std::size_t block) const {
    return block <= fIdentity.maxBlock && fOutbox.canHold(block);
}

bool Page::hearsLocked(std::string_view channel) {
    if (fLastChannel != channel || channel.empty()) {
        fHearsLast = fSubscriptions.matches(channel);
        fLastChannel = channel;
    }
    return fHearsLast;
}

void Page::pushLocked(TimePoint now) {
    if (fCarrier == nullptr || fIsWritingLater) return;
    if (mayGoAloneLocked(now)) {
        writeLocked(now);
    } else if (!fIsTailLater) {
        fIsTailLater = true;
        fLookedAt = now;
        fCarrier->awaitTail();
    }
}

bool Page::mayGoAloneLocked(TimePoint now) {
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

void Page::writeLocked(TimePoint now) {
    std::size_t total = 0;
    while (fSocket >= 0 && total < kPublisherWrites) {
        const auto pending = fOutbox.pending(now);
        if (isEmpty(pending)) return;
        const auto sent = put(fSocket, pending, kPublisherWrites);
        if (sent < 0) return;
        if (sent == 0) break;
        fOutbox.written(static_cast<std::size_t>(sent));
        total += static_cast<std::size_t>(sent);
    }
    fIsWritingLater = true;
    fCarrier->awaitWritable();
}

void Page::failLocked(std::string_view why) noexcept {
    if (!fFailure.empty()) return;
    try {
        fFailure = why;
    } catch (...) {
        fFailure = "no memory";  // short enough to need none
    }
    try {
        if (fCarrier != nullptr) fCarrier->pageFailed();
    } catch (...) {  // the next look at the times finds it
    }
}

// --- The gateway's thread ----------------------------------------------------------------------

void Page::connectLocked(std::shared_ptr<Carrier> carrier, int socket, const Greeting& greeting,
                         TimePoint now) {
    fCarrier = std::move(carrier);
    fSocket = socket;
    fIsAway = false;
    fIsWritingLater = false;
    fIsTailLater = false;
    fConnectedAt = now;
    fOutbox.greet(greeting.hello, greeting.channelsNamed);
}

void Page::attach(std::shared_ptr<Carrier> carrier, int socket, const Greeting& greeting,
                  TimePoint now) {
    heard(now);
    {
        annotated::Lock lock(fMutex);
        connectLocked(std::move(carrier), socket, greeting, now);
    }
    write(now);
}

void Page::reattach(std::shared_ptr<Carrier> carrier, int socket, const Greeting& greeting,
                    const wire::Hello& hello, TimePoint now, LeavingList& leaving) {
    heard(now);
    {
        annotated::Lock lock(fMutex);
        fOutbox.resume(hello.last, hello.refused, leaving);
        connectLocked(std::move(carrier), socket, greeting, now);
    }
    write(now);
}

bool Page::canResume(std::uint64_t last) const {
    annotated::Lock lock(fMutex);
    return !fIsRetired && fFailure.empty() && fOutbox.canResume(last);
}

std::string Page::detach() {
    annotated::Lock lock(fMutex);
    fCarrier = nullptr;
    fSocket = -1;
    fIsTailLater = false;
    return fOutbox.detach();
}

std::shared_ptr<Carrier> Page::carrier() const {
    annotated::Lock lock(fMutex);
    return fCarrier;
}

std::vector<std::string> Page::blockChannels() const {
    annotated::Lock lock(fMutex);
    return fOutbox.blockChannels();
}

void Page::write(TimePoint now) {
    {
        annotated::Lock lock(fMutex);
        if (fCarrier == nullptr || fIsWritingLater) return;
        fIsWritingLater = true;
    }
    writeMore(now);
}

void Page::writeMore(TimePoint now) {
    std::size_t total = 0;
    std::size_t sent = 0;
    for (bool isFull = false;;) {
        int socket = -1;
        Outbox::Pending pending;
        {
            annotated::Lock lock(fMutex);
            fOutbox.written(sent);
            pending = fOutbox.pending(now);
            if (fCarrier == nullptr || isEmpty(pending)) {
                fIsWritingLater = false;
                return;
            }
            socket = fSocket;
            if (socket < 0 || isFull || total >= kGatewayWrites) {
                return fCarrier->awaitWritable();
            }
        }
        // Publishers leave the socket alone meanwhile, and go on adding to what waits.
        const auto taken = put(socket, pending, kGatewayWrites);
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

bool Page::writeTail(TimePoint now) {
    {
        annotated::Lock lock(fMutex);
        fIsTailLater = fCarrier != nullptr && !fIsWritingLater && !isEmpty(fOutbox.pending(now));
        if (!fIsTailLater) return false;
        fLookedAt = now;
        fIsWritingLater = true;
    }
    writeMore(now);
    return true;
}

bool Page::collect(std::string& to, std::size_t size, TimePoint now) {
    annotated::Lock lock(fMutex);
    std::size_t total = 0;
    while (total < size) {
        std::size_t taken = 0;
        for (const auto part : fOutbox.pending(now)) {
            const auto piece = part.substr(0, size - total - taken);
            to += piece;
            taken += piece.size();
        }
        if (taken == 0) break;
        fOutbox.written(taken);
        total += taken;
    }
    fIsWritingLater = total > 0;
    return total > 0;
}

void Page::sendControl(std::string_view text, TimePoint now) {
    {
        annotated::Lock lock(fMutex);
        fOutbox.addControl(text);
        checkRoomLocked();
    }
    write(now);
}

void Page::sendFrames(std::string frames, TimePoint now) {
    {
        annotated::Lock lock(fMutex);
        fOutbox.addFrames(std::move(frames));
        checkRoomLocked();
    }
    write(now);
}

void Page::checkRoomLocked() {
    if (fOutbox.bytes() > fLimits.queueSize) failLocked("the queue is full");
}

void Page::subscribe(std::string_view channel) {
    annotated::Lock lock(fMutex);
    fSubscriptions.add(channel);
    fLastChannel.clear();
}

void Page::unsubscribe(std::string_view channel) {
    annotated::Lock lock(fMutex);
    fSubscriptions.remove(channel);
    fLastChannel.clear();
}

std::vector<std::string> Page::subscriptions() const {
    annotated::Lock lock(fMutex);
    return fSubscriptions.channels();
}

std::size_t Page::subscriptionCount() const {
    annotated::Lock lock(fMutex);
    return fSubscriptions.size();
}

void Page::acknowledge(std::uint64_t last) {
    annotated::Lock lock(fMutex);
    fOutbox.acknowledge(last);
}

void Page::answer(std::uint64_t transfer, bool hasBlock, TimePoint now, LeavingList& leaving) {
    {
        annotated::Lock lock(fMutex);
        fOutbox.answer(transfer, hasBlock, leaving);
    }
    write(now);  // what waited for a block to be answered can go on
}

std::string Page::failure() const {
    annotated::Lock lock(fMutex);
    return fFailure;
}

std::string Page::checkTimes(TimePoint now, LeavingList& leaving) {
    {
        annotated::Lock lock(fMutex);
        if (!fFailure.empty() || fCarrier == nullptr) return fFailure;
        // What was kept for an absent page begins to wait when the page is there again.
        if (now - std::max(fOutbox.waitingSince(now), fConnectedAt) > fLimits.queue) {
            fFailure = "something waited for too long";
        } else if (!fOutbox.dropBlocksBefore(now - fLimits.block, leaving)) {
            fFailure = "a block could not be sent in time";
        }
        if (!fFailure.empty()) return fFailure;
    }
    write(now);  // a block that was dropped may have held up others
    return {};
}

void Page::dropBlocks(LeavingList& leaving) {
    annotated::Lock lock(fMutex);
    fIsAway = true;
    fOutbox.dropBlocks(leaving);
}

void Page::retire(LeavingList& leaving) {
    annotated::Lock lock(fMutex);
    fIsRetired = true;
    fOutbox.clear(leaving);
}

Page::State Page::state(TimePoint now) const {
    annotated::Lock lock(fMutex);
    State state;
    state.isConnected = fCarrier != nullptr;
    state.next = fOutbox.next();
    state.acknowledged = fOutbox.acknowledged();
    state.bytes = fOutbox.bytes();
    state.blocksUnderWay = fOutbox.blocksUnderWay();
    state.bytesUnderWay = fOutbox.bytesUnderWay();
    state.waiting =
        std::chrono::duration_cast<std::chrono::milliseconds>(now - fOutbox.waitingSince(now));
    state.silence = std::chrono::duration_cast<std::chrono::milliseconds>(now - lastSign());
    return state;
}

}  // namespace kirogateway
