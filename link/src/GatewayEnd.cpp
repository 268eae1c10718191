#include "GatewayEnd.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "Beats.hpp"
#include "Clocks.hpp"
#include "Frame.hpp"
#include "NumberedReceiver.hpp"
#include "Overloaded.hpp"
#include "PageFetch.hpp"
#include "Subjects.hpp"
#include "UpStream.hpp"
#include "annotated/Mutex.hpp"
#include "checked/Require.hpp"
#include "text/Escape.hpp"

namespace kirolink {
namespace {

using TimePoint = GatewayEnd::TimePoint;
using std::chrono::microseconds;

/// Bytes of what an engine gives as a reason, before escaping, which makes four of one: a browser
/// takes 123.
constexpr std::size_t kMostShown = 28;
constexpr const char* kGone = "the engine is gone";
constexpr const char* kCutOff = "this gateway has lost the cluster";
using Whose = Follower::Whose;

class Ticket final : public BlockTicket {
  public:
    Ticket(std::shared_ptr<UpStream> up, std::uint64_t incarnation, std::uint64_t number)
        : fUp(std::move(up)), fIncarnation(incarnation), fNumber(number) {}
    ~Ticket() override { Ticket::answer(BlockOutcome::kRefused); }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

    void answer(BlockOutcome outcome) noexcept override {
        const auto up = std::exchange(fUp, nullptr);
        if (up != nullptr) up->answer(fIncarnation, fNumber, outcome);
    }

  private:
    std::shared_ptr<UpStream> fUp;  ///< null: answered
    const std::uint64_t fIncarnation;
    const std::uint64_t fNumber;
};

/// What is counted. Any thread.
class Counts {
  public:
    template <typename Change>
    void change(const Change& change) noexcept {
        const annotated::Lock lock(fMutex);
        change(fCounts);
    }
    [[nodiscard]] GatewayEnd::Statistics get() const noexcept {
        const annotated::Lock lock(fMutex);
        return fCounts;
    }

  private:
    mutable annotated::Mutex fMutex;
    GatewayEnd::Statistics fCounts GUARDED_BY(fMutex);
};

/// What the gateway's end does with what comes, and as time passes. Not synchronised.
class Machine {
  public:
    Machine(Cluster& cluster, GatewayEnd::Identity identity, Follower& follower,
            Surroundings surroundings, const GatewayEnd::Settings& settings,
            std::shared_ptr<UpStream> up, Counts& counts)
        : fCluster(cluster),
          fFollower(follower),
          fSurroundings(std::move(surroundings)),
          fSubject(subjects::from(identity.session, identity.gateway)),
          fAddress(std::move(identity.address)),
          fUp(std::move(up)),
          fCounts(counts),
          fIncarnation(fSurroundings.random()),
          fAssembly(settings.largest) {}

    /// `isOwn`: it came to this gateway alone.
    void received(std::string_view bytes, bool isOwn) noexcept;
    void tick(TimePoint now) noexcept;
    void refuseSession() noexcept;
    /// The last thing that it does.
    void end() noexcept;

  private:
    void handle(std::string_view bytes, bool isOwn);
    void beat(const frame::Header& header);
    /// The engine says that it has, and that all was below `number`.
    void ended(std::uint64_t number);
    void leaveWhenComplete() noexcept;
    void welcome(const frame::Header& header, const Description& session);
    void fetch();
    void partCame(std::uint64_t offset, std::string_view bytes);
    void answered(const frame::Header& header, const frame::Answer& answer);
    void asked(const frame::Header& header, const frame::Ask& ask);
    void numbered(const Frame& frame, std::string_view bytes, bool isOwn);
    void take(const frame::Body& body, std::uint64_t number);
    /// What came in pieces cannot be taken.
    void refuseWhole(bool isBlock, std::uint64_t number);
    void step(TimePoint now);
    /// Asks for what is missing, if that is due.
    void question();
    void heard() noexcept;
    void leave(std::string_view why, Whose whose = Whose::kGateway) noexcept;
    void sendLeave();
    void sendHello();
    void sendPresence();
    /// Tells the engine what is there, and what is missing.
    void acknowledge(frame::Ask ask);
    void send(const frame::Header& header, const frame::Body& body);
    [[nodiscard]] bool isOurs(const frame::Header& header) const noexcept {
        return fIsJoined && header.epoch == fEpoch && header.incarnation == fIncarnation;
    }
    void refuse() noexcept {
        fCounts.change([](Statistics& all) { ++all.refusals; });
    }

    using Statistics = GatewayEnd::Statistics;

    Cluster& fCluster;
    Follower& fFollower;
    const Surroundings fSurroundings;
    const std::string fSubject;  ///< on which it sends
    const std::string fAddress;
    const std::shared_ptr<UpStream> fUp;
    Counts& fCounts;

    bool fHasSaidHello = false;  ///< of this incarnation
    bool fIsJoined = false;
    std::optional<PageFetch> fFetch;  ///< of the session's page
    bool fIsRefused = false;          ///< there is no more to do with the session
    bool fIsSilent = false;
    std::optional<TimePoint>
        fEndsAt;  ///< the engine has ended; when the session does at the latest
    std::uint64_t fEpoch = 0;
    std::uint64_t fIncarnation;
    NumberedReceiver fReceiver;
    Assembly fAssembly;
    Clocks fClocks;
    Steps fSteps;
    std::size_t fUnacknowledged = 0;
    std::string fChannel;  ///< of a text that is handed over, as the next one
    std::string fSpace;
    TimePoint fLastHeard{};
    TimePoint fNextBeat{};  ///< or hello
};

// --- What comes ---------------------------------------------------------------------------------

void Machine::received(std::string_view bytes, bool isOwn) noexcept {
    const auto before = fReceiver.next();
    try {
        handle(bytes, isOwn);
    } catch (...) {
        // No memory. What was not taken will be asked for; what was, is lost.
        refuse();
        if (fReceiver.next() != before) leave("no memory for what came");
    }
    const auto gaps = fReceiver.gaps();
    fCounts.change([&](Statistics& all) {
        ++all.framesReceived;
        all.bytesReceived += bytes.size();
        all.gaps = gaps;
    });
}

void Machine::handle(std::string_view bytes, bool isOwn) {
    const auto frame = readFrame(bytes);
    if (!frame) return refuse();
    const auto& header = frame->header;
    const auto ours = [&] { return isOurs(header); };
    std::visit(Overloaded{
                   [&](const frame::Beat&) { beat(header); },
                   [&](const frame::End&) {
                       if (fIsJoined && header.epoch == fEpoch) ended(header.number);
                   },
                   [&](const frame::Welcome& said) { welcome(header, said.session); },
                   [&](const frame::Answer& answer) {
                       if (ours()) answered(header, answer);
                   },
                   [&](const frame::Dropped& dropped) {
                       // It is shown to people, and goes to browsers.
                       if (ours()) leave(text::escaped(dropped.reason, kMostShown));
                   },
                   [&](const frame::Ask& ask) {
                       if (ours()) asked(header, ask);
                   },
                   [&](const frame::Resent&) {
                       if (!ours()) return;
                       heard();
                       fReceiver.resent();
                       question();
                   },
                   [&](const frame::Part& part) {
                       if (ours()) partCame(header.number, part.bytes);
                   },
                   [&](const frame::Texts&) { numbered(*frame, bytes, isOwn); },
                   [&](const frame::Piece&) { numbered(*frame, bytes, isOwn); },
                   [&](const auto&) { refuse(); },  // what a gateway says
               },
               frame->body);
}

void Machine::beat(const frame::Header& header) {
    if (!fIsJoined) return;
    if (header.epoch != fEpoch) {
        // Of two that live the one that was there first is followed.
        if (fIsSilent) leave("another engine has taken over", Whose::kEngine);
        return;
    }
    heard();
    fReceiver.expect(header.number);
    question();
}

void Machine::ended(std::uint64_t number) {
    fReceiver.expect(number);
    if (!fEndsAt) fEndsAt = fSurroundings.now() + kSilenceIsGone;
    leaveWhenComplete();
}

void Machine::leaveWhenComplete() noexcept {
    // What was said before the end may come behind it, on another subject.
    if (fEndsAt && (fReceiver.isComplete() || fSurroundings.now() >= *fEndsAt)) {
        leave(kGone, Whose::kEngine);
    }
}

void Machine::welcome(const frame::Header& header, const Description& session) {
    // The next incarnation can be foreseen, so an engine could welcome without having been asked.
    if (fIsJoined || fIsRefused || !fHasSaidHello) return;
    if (header.incarnation != fIncarnation) return;
    using Wanted = Follower::PageWanted;
    const auto wanted =
        session.page.isThere() ? fFollower.pageOffered(session.page) : Wanted::kHere;
    fEpoch = header.epoch;
    if (wanted == Wanted::kRefused) {
        fIsRefused = true;
        return sendLeave();
    }
    // All that may fail comes first.
    fFetch.reset();
    if (wanted == Wanted::kFetch) fFetch.emplace(session.page.size);
    fIsJoined = true;
    fIsSilent = false;
    fReceiver = NumberedReceiver(header.number);
    fClocks = {};
    fUnacknowledged = 0;
    fLastHeard = fNextBeat = fSurroundings.now();
    fUp->open(fEpoch, fIncarnation);
    fCounts.change([](Statistics& all) { all.isJoined = true; });
    // Pages need not wait for their page: they may have it from another gateway.
    fFollower.joined(session);
    if (fFetch) fetch();
}

void Machine::fetch() {
    for (const auto offset : fFetch->due(fSurroundings.now())) {
        send({fEpoch, fIncarnation, offset}, frame::Fetch());
    }
}

void Machine::partCame(std::uint64_t offset, std::string_view bytes) {
    heard();
    if (!fFetch) return;  // it came twice
    const auto room = fFetch->roomWith(offset, bytes);
    if (room > 0 && !fFollower.pageGrows(room)) return refuseSession();
    static_cast<void>(fFetch->arrived(offset, bytes, fSurroundings.now()));
    if (!fFetch->isWhole()) return fetch();
    fFollower.pageCame(fFetch->take());
    fFetch.reset();
}

void Machine::refuseSession() noexcept {
    fIsRefused = true;
    end();
    leave("it is refused");
}

void Machine::answered(const frame::Header& header, const frame::Answer& answer) {
    heard();
    if (!fUp->acknowledged(header.number)) return refuse();
    // An older one may have been on its way for long; the shortest round trip counts.
    fClocks.add(microseconds(answer.echo), microseconds(answer.receivedAt),
                microseconds(answer.sentAt), fSurroundings.wall());
    fReceiver.setRoundTrip(fClocks.lastRoundTrip());
    const auto offset = fClocks.offset();
    const auto uncertainty = fClocks.uncertainty();
    fCounts.change([&](Statistics& all) {
        all.clockOffset = offset;
        all.clockUncertainty = uncertainty;
    });
}

void Machine::asked(const frame::Header& header, const frame::Ask& ask) {
    heard();
    if (!fUp->acknowledged(header.number)) return refuse();
    fUp->sendAgain(ask, fSurroundings.now());
}

void Machine::numbered(const Frame& frame, std::string_view bytes, bool isOwn) {
    if (!fIsJoined || frame.header.epoch != fEpoch) return;
    heard();
    // What comes to this gateway alone, comes again.
    if (isOwn) fCounts.change([](Statistics& all) { ++all.resends; });
    auto number = frame.header.number;
    if (fReceiver.arrived(number, bytes)) {
        take(frame.body, number);
        while (fIsJoined) {
            const auto held = fReceiver.takeHeld();
            if (!held) break;
            take(readFrame(*held)->body, ++number);
        }
    }
    if (fIsJoined) leaveWhenComplete();
    if (!fIsJoined) return;
    fUnacknowledged += bytes.size();
    if (fUnacknowledged >= kAcknowledged) acknowledge({});
    question();
}

void Machine::take(const frame::Body& body, std::uint64_t number) {
    if (const auto* texts = std::get_if<frame::Texts>(&body)) {
        for (const auto& record : texts->records) {
            fChannel = record.channel;
            fFollower.text(fChannel, textOf(record, fSpace));
        }
        return;
    }
    const auto& piece = std::get<frame::Piece>(body);
    switch (fAssembly.add(piece)) {
        case Assembly::Result::kPart:
            return;
        case Assembly::Result::kBad:
            return piece.isLast() ? refuseWhole(piece.isBlock, number) : refuse();
        case Assembly::Result::kWhole:
            break;
    }
    fChannel = piece.channel;
    auto whole = fAssembly.take();
    if (!piece.isBlock) {
        return fFollower.text(fChannel, whole);
    }
    fFollower.block(fChannel, std::make_shared<const std::string>(std::move(whole)),
                    std::make_unique<Ticket>(fUp, fIncarnation, number));
}

void Machine::refuseWhole(bool isBlock, std::uint64_t number) {
    refuse();
    if (isBlock) return Ticket(fUp, fIncarnation, number).answer(BlockOutcome::kRefused);
    // Its pages would lack it and not know.
    end();
    leave("a text is larger than this gateway takes");
}

void Machine::heard() noexcept {
    fLastHeard = fSurroundings.now();
    if (std::exchange(fIsSilent, false)) fFollower.heard();
}

// --- What is sent -------------------------------------------------------------------------------

void Machine::send(const frame::Header& header, const frame::Body& body) {
    auto bytes = std::make_shared<const std::string>(writeFrame(header, body));
    fCounts.change([&](Statistics& all) {
        ++all.framesSent;
        all.bytesSent += bytes->size();
    });
    static_cast<void>(fCluster.publish(fSubject, std::move(bytes)));  // it is said again
}

void Machine::sendLeave() { send({fEpoch, fIncarnation, 0}, frame::Leave{}); }

void Machine::sendHello() {
    fHasSaidHello = true;
    send({0, fIncarnation, 0}, frame::Hello{fAddress});
}

void Machine::sendPresence() {
    const auto stamp = fSurroundings.wall();
    fUnacknowledged = 0;
    const auto uncertainty = static_cast<std::uint64_t>(fClocks.uncertainty().count());
    send({fEpoch, fIncarnation, fUp->sentBelow()},
         frame::Presence{fReceiver.next(), stamp.count(), fClocks.offset().count(), uncertainty});
}

void Machine::acknowledge(frame::Ask ask) {
    fUnacknowledged = 0;
    send({fEpoch, fIncarnation, fReceiver.next()}, std::move(ask));
}

void Machine::question() {
    if (!fIsJoined) return;
    auto ask = fReceiver.ask(fSurroundings.now());
    if (ask) acknowledge(std::move(*ask));
}

// --- Time ---------------------------------------------------------------------------------------

void Machine::tick(TimePoint now) noexcept {
    try {
        step(now);
    } catch (...) {
        refuse();  // no memory for a beat: the next one may have some
    }
}

void Machine::step(TimePoint now) {
    if (fSteps.paused(now)) fLastHeard = std::max(fLastHeard, now);
    if (fIsJoined && fUp->isBroken()) leave("no memory for what pages say");
    if (fIsJoined && now - fLastHeard > kSilenceIsEnd) {
        // One that is cut off itself hears nothing of an engine that others may well have.
        fCluster.isConnected() ? leave(kGone, Whose::kEngine) : leave(kCutOff, Whose::kGateway);
    }
    if (fIsJoined) leaveWhenComplete();
    if (fIsJoined && !fIsSilent && now - fLastHeard > kSilenceIsGone) {
        fIsSilent = true;
        fFollower.silent(fLastHeard);
    }
    if (fIsRefused) return;
    if (now >= fNextBeat) {
        fNextBeat = now + kBeat;
        fIsJoined ? sendPresence() : sendHello();
    }
    if (!fIsJoined) return;
    fUp->retry();
    question();
    if (fFetch) fetch();
}

void Machine::leave(std::string_view why, Whose whose) noexcept {
    if (!std::exchange(fIsJoined, false)) return;
    fUp->close();
    fAssembly.clear();
    fFetch.reset();
    fEndsAt.reset();
    ++fIncarnation;  // the engine tells this joining from the next
    // Not at once: a session costs, and it is the engine that says when one ends.
    fHasSaidHello = false;
    fNextBeat = fSurroundings.now() + kBeat;
    fCounts.change([](Statistics& all) {
        all.isJoined = false;
        // The next engine has another clock.
        all.clockOffset = all.clockUncertainty = microseconds(0);
    });
    fFollower.left(why, whose);
}

void Machine::end() noexcept {
    if (!fIsJoined) return;
    try {
        sendLeave();
    } catch (...) {  // the engine will see by itself that it is gone
    }
}

}  // namespace

// --- The end as a whole -------------------------------------------------------------------------

struct GatewayEnd::Impl {
    Impl(Cluster& cluster, Identity identity, Follower& follower, Surroundings surroundings,
         const Settings& settings)
        : up(std::make_shared<UpStream>(cluster,
                                        subjects::from(identity.session, identity.gateway))),
          machine(cluster, std::move(identity), follower, std::move(surroundings), settings, up,
                  counts) {}

    void listen(Cluster& cluster, const std::string& subject, bool isOwn) {
        subscriptions.push_back(
            cluster.subscribe(subject, [this, isOwn](std::string_view, std::string_view bytes) {
                const annotated::Lock lock(mutex);
                machine.received(bytes, isOwn);
            }));
    }

    const std::shared_ptr<UpStream> up;
    Counts counts;
    /// Held while the follower is called: what comes is one after the other.
    annotated::Mutex mutex{annotated::Rank::kLinkReceive};
    Machine machine GUARDED_BY(mutex);
    std::vector<std::unique_ptr<Cluster::Subscription>> subscriptions;
};

GatewayEnd::GatewayEnd(Cluster& cluster, Identity identity, Follower& follower,
                       Surroundings surroundings)
    : GatewayEnd(cluster, std::move(identity), follower, std::move(surroundings), Settings()) {}

GatewayEnd::GatewayEnd(Cluster& cluster, Identity identity, Follower& follower,
                       Surroundings surroundings, const Settings& settings) {
    KIROWEB_REQUIRE(subjects::isName(identity.session) && subjects::isName(identity.gateway));
    const auto session = identity.session;
    const auto own = subjects::to(session, identity.gateway);
    fImpl = std::make_unique<Impl>(cluster, std::move(identity), follower, std::move(surroundings),
                                   settings);
    fImpl->listen(cluster, own, true);
    fImpl->listen(cluster, subjects::down(session), false);
    fImpl->listen(cluster, subjects::beat(session), false);
}

GatewayEnd::~GatewayEnd() {
    fImpl->subscriptions.clear();
    fImpl->up->detach();
    const annotated::Lock lock(fImpl->mutex);
    fImpl->machine.end();
}

void GatewayEnd::publish(std::string_view channel, std::string_view text) {
    fImpl->up->publish(channel, text);
}

void GatewayEnd::sendBlock(std::string_view channel, std::string_view block) {
    fImpl->up->sendBlock(channel, block);
}

bool GatewayEnd::hasRoomForPages() const noexcept { return fImpl->up->hasRoomForPages(); }

void GatewayEnd::announce(ViewKind kind, std::string_view client, std::uint64_t view) {
    fImpl->up->announce(kind, client, view);
}

void GatewayEnd::pages(std::size_t count) noexcept { fImpl->up->pages(count); }

void GatewayEnd::refuse(const std::function<bool()>& isMeant) noexcept {
    const annotated::Lock lock(fImpl->mutex);
    if (!isMeant || isMeant()) fImpl->machine.refuseSession();
}

void GatewayEnd::tick(TimePoint now) noexcept {
    const annotated::Lock lock(fImpl->mutex);
    fImpl->machine.tick(now);
}

std::size_t GatewayEnd::waiting() const noexcept { return fImpl->up->waiting(); }

GatewayEnd::Totals& GatewayEnd::Totals::operator+=(const Totals& others) noexcept {
    framesReceived += others.framesReceived;
    bytesReceived += others.bytesReceived;
    gaps += others.gaps;
    resends += others.resends;
    framesSent += others.framesSent;
    bytesSent += others.bytesSent;
    refusals += others.refusals;
    return *this;
}

GatewayEnd::Statistics GatewayEnd::statistics() const {
    const auto sent = fImpl->up->statistics();
    auto all = fImpl->counts.get();
    all.framesSent += sent.frames;
    all.bytesSent += sent.bytes;
    all.waiting = waiting();
    return all;
}

}  // namespace kirolink
