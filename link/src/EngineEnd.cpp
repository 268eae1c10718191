#include "EngineEnd.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "Allowance.hpp"
#include "Offers.hpp"
#include "Overloaded.hpp"
#include "OwnPage.hpp"
#include "Subjects.hpp"
#include "TextEncoding.hpp"
#include "checked/Require.hpp"
#include "text/Escape.hpp"

namespace kirolink {
namespace {

using TimePoint = EngineEnd::TimePoint;
using std::chrono::microseconds;

constexpr std::chrono::milliseconds kCheck{50};
/// So long letters may hold up beats, and what is sent.
constexpr std::chrono::milliseconds kLetters{10};
/// Until a gateway is welcomed again; then twice as long each time. A hello is short, and a welcome
/// may be long.
constexpr std::chrono::milliseconds kWelcomeAgain{1000};
/// Two offers may be lost.
constexpr auto kOfferLasts = 3 * Offers::kAgain;
/// What a page may send in pieces: a gateway keeps no more.
constexpr std::size_t kMostOfPages = std::size_t{64} << 20U;
/// Views of one gateway's that are known again when they come back: more than it keeps.
constexpr std::size_t kMostViews = 16UL * 1024;
/// What a text counts beside its bytes.
constexpr std::size_t kTextPlace = 256;

EngineEnd::Settings withDigest(EngineEnd::Settings settings) {
    settings.description.page = digestOf(settings.page);
    return settings;
}

}  // namespace

/// One gateway, from its hello on.
struct EngineEnd::Gateway {
    Gateway(std::string itsName, std::string itsAddress, std::uint64_t itsIncarnation)
        : name(std::move(itsName)), address(std::move(itsAddress)), incarnation(itsIncarnation) {}

    const std::string name;
    const std::string address;
    const std::uint64_t incarnation;
    std::uint64_t first = 0;  ///< the number of the first frame that it gets
    NumberedReceiver receiver;
    Assembly assembly{kMostOfPages};
    Resends resends;
    Allowance ofPage;  ///< for what it asks for of the session's page
    TimePoint lastHeard;
    bool isSilent = false;
    std::size_t pages = 0;
    std::uint64_t has = 0;
    std::size_t unacknowledged = 0;
    std::uint64_t gapsCounted = 0;
    microseconds clockOffset{0};
    microseconds clockUncertainty{0};
    std::map<std::uint64_t, std::uint64_t> views;  ///< its number of each, and the session's
    std::shared_ptr<std::atomic<std::size_t>> undelivered =
        std::make_shared<std::atomic<std::size_t>>(0);
};

EngineEnd::EngineEnd(Cluster& cluster, Settings settings, EngineHost& host,
                     std::function<void()> wake, Surroundings surroundings)
    : fCluster(cluster),
      fSettings(withDigest(std::move(settings))),
      fHost(host),
      fSurroundings(std::move(surroundings)),
      fEpoch(fSurroundings.random() | 1U),  // 0 is no epoch
      fDownSubject(subjects::down(fSettings.session)),
      fBeatSubject(subjects::beat(fSettings.session)),
      fMayPublish(fSettings.description.mayPublish.begin(), fSettings.description.mayPublish.end()),
      fStream(std::make_shared<DownStream>(fEpoch, fSettings.memory,
                                           fSettings.description.maySubscribe, wake)),
      fWaits([this](BlockEnd how) { blockEnded(how); }) {
    KIROWEB_REQUIRE(subjects::isName(fSettings.session));
    const auto listener = [this, wake](std::string_view subject, std::string_view bytes) {
        if (fInbox.put(subjects::lastPart(subject), bytes, fSurroundings.wall())) wake();
    };
    fSubscription = fCluster.subscribe(subjects::from(fSettings.session, "*"), listener);
}

EngineEnd::~EngineEnd() { stop(); }

void EngineEnd::stop() noexcept {
    if (fSubscription == nullptr) return;
    fSubscription.reset();
    try {
        // What was gathered does not wait for more, and the end says what there was.
        fStream->send(fCluster, fDownSubject, fSurroundings.now() + DownStream::kGather);
        auto end = writeFrame({fEpoch, 0, fStream->sentBelow()}, frame::End());
        fCluster.publish(fBeatSubject, std::make_shared<const std::string>(std::move(end)));
    } catch (...) {  // gateways will see by themselves that it is gone
    }
    fStream->close();
    fWaits.clear();
}

void EngineEnd::blockEnded(BlockEnd how) {
    switch (how) {
        case BlockEnd::kDelivered:
            ++fCounts.blocksDelivered;
            return;
        case BlockEnd::kRefused:
            ++fCounts.blocksRefused;
            return fHost.note("a block was given back, a page refused it", {});
        case BlockEnd::kNobody:
            ++fCounts.blocksNobody;
            return fHost.note("a block was given back, no page hears it", {});
        case BlockEnd::kGone:
            ++fCounts.blocksGone;
            return fHost.note("a block was given back, a gateway is gone", {});
    }
}

// --- Time ---------------------------------------------------------------------------------------

TimePoint EngineEnd::step(TimePoint now) noexcept {
    auto sendAgain = TimePoint::max();
    try {
        stepOnce(now);
        sendAgain = fStream->send(fCluster, fDownSubject, now);
    } catch (...) {
        fHost.note("the link has no memory", {});
        sendAgain = now + kCheck;
    }
    if (!fInbox.isEmpty()) return now;
    return std::min({sendAgain, fNextBeat, fNextCheck});
}

void EngineEnd::stepOnce(TimePoint now) {
    if (fSteps.paused(now)) {
        for (const auto& [name, gateway] : fGateways) gateway->lastHeard = now;
    }
    // Before what has come: that may be an answer to one of these.
    for (auto& block : fStream->takeBlocks()) await(std::move(block), now);
    for (const auto& lost : fStream->takeLost()) {
        const auto at = std::ranges::find_if(fGateways, [&lost](const auto& entry) {
            return entry.second->incarnation == lost.reader;
        });
        if (at != fGateways.end()) drop(std::string(at->first), lost.why);
    }
    const auto end = fSurroundings.now() + kLetters;
    while (const auto letter = fInbox.take()) {
        handle(*letter, now);
        if (fSurroundings.now() >= end) break;
    }
    if (now >= fNextBeat) {
        fNextBeat = now + kBeat;
        auto beat =
            writeFrame({fEpoch, 0, fStream->sentBelow()}, frame::Beat{!fSettings.page.empty()});
        fCluster.publish(fBeatSubject, std::make_shared<const std::string>(std::move(beat)));
    }
    if (now < fNextCheck) return;
    // Offers become old also where nobody is.
    fNextCheck = now + (fGateways.empty() ? kBeat : kCheck);
    check(now);
    report(now);
}

void EngineEnd::await(DownStream::Block block, TimePoint now) {
    std::erase_if(block.readers, [this](std::uint64_t reader) {
        return std::ranges::none_of(fGateways, [reader](const auto& entry) {
            return entry.second->incarnation == reader && !entry.second->isSilent;
        });
    });
    try {
        fWaits.add(block.number, std::move(block.wait), std::move(block.readers), now);
    } catch (...) {
        ++fCounts.blocksRefused;
        fHost.note("a block was given back, no memory to wait for it", {});
        block.wait->finished(false);
    }
}

void EngineEnd::check(TimePoint now) {
    std::vector<std::pair<std::string, const char*>> over;
    for (const auto& [name, gateway] : fGateways) {
        const auto silence = now - gateway->lastHeard;
        if (silence > kSilenceIsEnd) {
            over.emplace_back(name, "nothing was heard of it for 10 s");
        } else if (!fStream->isReader(gateway->incarnation)) {
            // There was no memory to join it, or to drop it.
            over.emplace_back(name, "it gets nothing any more");
        } else if (fStream->isBehind(gateway->incarnation, now, kSilenceIsEnd)) {
            over.emplace_back(name, "it is 10 s behind");
        } else if (silence > kSilenceIsGone && !gateway->isSilent) {
            gateway->isSilent = true;
            fHost.note("nothing is heard of a gateway", name);
            fWaits.gone(gateway->incarnation, gateway->pages > 0);
            countPages();
        }
    }
    for (const auto& [name, why] : over) drop(name, why);
    fWaits.expire(now);
    for (const auto& [name, gateway] : fGateways) {
        auto ask = gateway->receiver.ask(now);
        if (ask) acknowledge(*gateway, std::move(*ask));
    }
}

void EngineEnd::report(TimePoint now) {
    auto counts = fCounts;
    counts.gateways = fGateways.size();
    counts.views = fViews;
    std::vector<GatewayReport> gateways;
    const auto sent = fStream->sentBelow();
    for (const auto& [name, gateway] : fGateways) {
        gateways.push_back(
            {name, gateway->address, gateway->pages, sent, gateway->has, gateway->isSilent,
             std::chrono::duration_cast<std::chrono::milliseconds>(now - gateway->lastHeard),
             gateway->clockOffset, gateway->clockUncertainty});
    }
    std::erase_if(fFound, [this, now](const auto& entry) {
        return now - entry.second.when > kOfferLasts && !fGateways.contains(entry.first);
    });
    std::erase_if(fPaces, [this, now](const auto& entry) {
        return now >= entry.second.next && !fGateways.contains(entry.first);
    });
    std::vector<std::string> addresses;
    for (const auto& [name, one] : fFound) addresses.push_back(one.address);
    const annotated::Lock lock(fReportMutex);
    fReported = counts;
    fReportedGateways.swap(gateways);
    fReportedAddresses.swap(addresses);
}

EngineEnd::Statistics EngineEnd::statistics() const {
    auto counts = reported();
    counts.framesSent = fStream->framesSent();
    counts.bytesSent = fStream->bytesSent();
    counts.blocksNobody += fStream->blocksNobody();
    counts.blocksRefused += fStream->blocksRefused();
    counts.waiting = fStream->bytes();
    return counts;
}

std::vector<EngineEnd::GatewayReport> EngineEnd::gateways() const {
    const annotated::Lock lock(fReportMutex);
    return fReportedGateways;
}

std::vector<std::string> EngineEnd::addresses() const {
    const annotated::Lock lock(fReportMutex);
    return fReportedAddresses;
}

// --- Gateways come and go -----------------------------------------------------------------------

void EngineEnd::hello(const std::string& name, const frame::Header& header,
                      const frame::Hello& hello, TimePoint now) {
    const auto at = fGateways.find(name);
    // The welcome may have been lost.
    const bool isAgain = at != fGateways.end() && at->second->incarnation == header.incarnation;
    auto& pace = fPaces[name];
    if (now < pace.next) return;
    pace.patience = isAgain ? 2 * pace.patience : kWelcomeAgain;
    pace.next = now + pace.patience;
    if (isAgain) return welcome(*at->second);
    if (at != fGateways.end()) drop(name, "it has begun anew");
    if (fGateways.size() == kMostGateways) {
        return fHost.note("there are too many gateways for a further one", name);
    }
    auto gateway = std::make_unique<Gateway>(name, std::string(hello.address), header.incarnation);
    gateway->lastHeard = now;
    auto& added = *fGateways.emplace(name, std::move(gateway)).first->second;
    added.first = added.has = fStream->join(added.incarnation);
    welcome(added);
    fHost.note("a gateway has joined", name);
    found(name, hello.address, now);
}

void EngineEnd::found(const std::string& name, std::string_view address, TimePoint now) {
    // So that nobody fills memory, and what is told is not one gateway's.
    static constexpr std::size_t kMostTold = 1024;
    fNextCheck = now;  // it is reported at once
    if (fFound.size() < kMostGateways || fFound.contains(name)) {
        fFound[name] = {std::string(address), now};
    }
    if (fTold.size() == kMostTold || fTold.contains(name)) return;
    const bool isNew =
        std::ranges::none_of(fTold, [address](const auto& told) { return told.second == address; });
    const auto& told = fTold.emplace(name, address).first->second;
    if (isNew) fHost.gatewayFound(told);
}

void EngineEnd::welcome(const Gateway& gateway) {
    auto session = fSettings.description;
    session.views = fViews;
    send(gateway.name, {fEpoch, gateway.incarnation, gateway.first},
         frame::Welcome{std::move(session)});
}

void EngineEnd::drop(const std::string& name, std::string_view why) {
    const auto at = fGateways.find(name);
    const auto gateway = std::move(at->second);
    fGateways.erase(at);
    ++fCounts.dropped;
    fStream->leave(gateway->incarnation);
    // First what nobody else does when there is no memory for the rest.
    fWaits.gone(gateway->incarnation, gateway->pages > 0);
    countPages();
    fHost.note("a gateway was dropped", name + ": " + std::string(why));
    send(name, {fEpoch, gateway->incarnation, 0}, frame::Dropped{why});
}

void EngineEnd::countPages() {
    std::size_t pages = 0;
    for (const auto& [name, gateway] : fGateways) {
        if (!gateway->isSilent) pages += gateway->pages;
    }
    fCounts.pages = pages;
    fNextCheck = {};  // it is reported at once
    fHadPages = fHadPages || pages > 0;
    const bool isGone = fHadPages && pages == 0;
    if (!fLastPageGone.exchange(isGone) && isGone) fHost.lastPageGone();
}

// --- What comes ---------------------------------------------------------------------------------

void EngineEnd::handle(const Inbox::Letter& letter, TimePoint now) {
    const auto frame = readFrame(letter.bytes);
    if (!frame || !subjects::isName(letter.gateway)) {
        ++fCounts.refusals;
        return;
    }
    const auto& header = frame->header;
    if (const auto* said = std::get_if<frame::Hello>(&frame->body)) {
        return hello(letter.gateway, header, *said, now);
    }
    if (header.epoch != fEpoch) return;  // for another engine of the session
    if (const auto* said = std::get_if<frame::Offer>(&frame->body)) {
        return found(letter.gateway, said->address, now);
    }
    const auto at = fGateways.find(letter.gateway);
    if (at == fGateways.end() || at->second->incarnation != header.incarnation) {
        return send(letter.gateway, {fEpoch, header.incarnation, 0},
                    frame::Dropped{"it is not known"});
    }
    auto& gateway = *at->second;
    gateway.lastHeard = now;
    if (std::exchange(gateway.isSilent, false)) countPages();
    const auto before = gateway.receiver.next();
    try {
        handleKnown(gateway, *frame, letter, now);
    } catch (...) {
        // What was not taken will be asked for; what was, is lost.
        if (fGateways.contains(letter.gateway) && gateway.receiver.next() != before) {
            drop(letter.gateway, "no memory for what came");
        }
    }
}

void EngineEnd::handleKnown(Gateway& gateway, const Frame& frame, const Inbox::Letter& letter,
                            TimePoint now) {
    std::visit(Overloaded{
                   [&](const frame::Presence&) { presence(gateway, frame, letter, now); },
                   [&](const frame::Ask&) { ask(gateway, frame, now); },
                   [&](const frame::Resent&) { gateway.receiver.resent(); },
                   [&](const frame::Fetch&) { sendPart(gateway, frame.header.number, now); },
                   [&](const frame::Leave&) { drop(letter.gateway, "it has left"); },
                   [&](const frame::Texts&) { numbered(gateway, frame, letter.bytes); },
                   [&](const frame::Piece&) { numbered(gateway, frame, letter.bytes); },
                   [&](const frame::Announce&) { numbered(gateway, frame, letter.bytes); },
                   [&](const frame::Outcome&) { numbered(gateway, frame, letter.bytes); },
                   [&](const frame::Pages&) { numbered(gateway, frame, letter.bytes); },
                   [&](const auto&) { ++fCounts.refusals; },  // what an engine says
               },
               frame.body);
    if (std::holds_alternative<frame::Leave>(frame.body)) return;
    auto question = gateway.receiver.ask(now);
    if (question) acknowledge(gateway, std::move(*question));
    fCounts.gaps += gateway.receiver.gaps() - gateway.gapsCounted;
    gateway.gapsCounted = gateway.receiver.gaps();
}

void EngineEnd::presence(Gateway& gateway, const Frame& frame, const Inbox::Letter& letter,
                         TimePoint now) {
    const auto& said = std::get<frame::Presence>(frame.body);
    if (!fStream->acknowledged(gateway.incarnation, said.has, now)) {
        ++fCounts.refusals;
        return;
    }
    gateway.has = std::max(gateway.has, said.has);
    gateway.clockOffset = microseconds(said.clockOffset);
    gateway.clockUncertainty = microseconds(said.clockUncertainty);
    gateway.receiver.expect(frame.header.number);
    gateway.unacknowledged = 0;
    send(gateway.name, {fEpoch, gateway.incarnation, gateway.receiver.next()},
         frame::Answer{said.sentAt, letter.receivedAt.count(), fSurroundings.wall().count()});
}

void EngineEnd::ask(Gateway& gateway, const Frame& frame, TimePoint now) {
    if (!fStream->acknowledged(gateway.incarnation, frame.header.number, now)) {
        ++fCounts.refusals;
        return;
    }
    gateway.has = std::max(gateway.has, frame.header.number);
    fCounts.resends +=
        fStream->sendAgain(frame.header, std::get<frame::Ask>(frame.body), gateway.resends,
                           fCluster, subjects::to(fSettings.session, gateway.name), now);
}

void EngineEnd::sendPart(Gateway& gateway, std::uint64_t offset, TimePoint now) {
    const std::string_view page = fSettings.page;
    if (offset >= page.size() || offset % kPagePart != 0) {
        ++fCounts.refusals;
        return;
    }
    const auto part = page.substr(offset, kPagePart);
    // As if it had been lost: whoever means it asks again.
    if (!gateway.ofPage.take(part.size(), now)) return;
    send(gateway.name, {fEpoch, gateway.incarnation, offset}, frame::Part{part});
}

void EngineEnd::numbered(Gateway& gateway, const Frame& frame, std::string_view bytes) {
    // At once, also behind texts that nobody fetches: what would fetch them may wait for a block.
    // Pages come in order, so that what the last one said is there before it is gone.
    if (const auto* outcome = std::get_if<frame::Outcome>(&frame.body)) {
        fWaits.answered(gateway.incarnation, outcome->block, outcome->outcome);
    }
    // As if it had been lost: it will come again when there is room.
    if (*gateway.undelivered > kMostUndelivered) return;
    if (gateway.receiver.arrived(frame.header.number, bytes)) {
        take(gateway, frame.body);
        while (const auto held = gateway.receiver.takeHeld()) {
            take(gateway, readFrame(*held)->body);
        }
    }
    gateway.unacknowledged += bytes.size();
    if (gateway.unacknowledged >= kAcknowledged) acknowledge(gateway, {});
}

void EngineEnd::acknowledge(Gateway& gateway, frame::Ask ask) {
    gateway.unacknowledged = 0;
    send(gateway.name, {fEpoch, gateway.incarnation, gateway.receiver.next()}, std::move(ask));
}

// --- What pages say -----------------------------------------------------------------------------

void EngineEnd::take(Gateway& gateway, const frame::Body& body) {
    if (const auto* texts = std::get_if<frame::Texts>(&body)) {
        fStream->hurry();  // for a page's answer the engine waits, and what it says next is due
        std::string space;
        for (const auto& record : texts->records) {
            deliverText(gateway, std::string(record.channel), std::string(textOf(record, space)));
        }
    } else if (const auto* piece = std::get_if<frame::Piece>(&body)) {
        takePiece(gateway, *piece);
    } else if (const auto* said = std::get_if<frame::Announce>(&body)) {
        announce(gateway, *said);
    } else if (const auto* pages = std::get_if<frame::Pages>(&body)) {
        gateway.pages = pages->count;
        countPages();
    }
}

void EngineEnd::takePiece(Gateway& gateway, const frame::Piece& piece) {
    switch (gateway.assembly.add(piece)) {
        case Assembly::Result::kPart:
            return;
        case Assembly::Result::kBad:
            ++fCounts.refusals;
            return;
        case Assembly::Result::kWhole:
            break;
    }
    std::string channel(piece.channel);
    auto whole = gateway.assembly.take();
    if (!piece.isBlock) return deliverText(gateway, channel, std::move(whole));
    if (!mayPublish(channel)) {
        ++fCounts.refusals;
        return;
    }
    ++fCounts.blocksReceived;
    fHost.block(channel, whole);
}

bool EngineEnd::mayPublish(std::string_view channel) const noexcept {
    return std::ranges::any_of(fMayPublish,
                               [channel](const auto& list) { return list.matches(channel); });
}

void EngineEnd::deliverText(Gateway& gateway, const std::string& channel, std::string text) {
    // Its gateway has looked at that too; but a gateway may be anybody's.
    if (!mayPublish(channel)) {
        ++fCounts.refusals;
        return;
    }
    const auto size = text.size() + kTextPlace;
    *gateway.undelivered += size;
    const auto give = [undelivered = gateway.undelivered, size](const void*) {
        *undelivered -= size;
    };
    std::shared_ptr<const void> ticket(nullptr, give);
    fHost.text(channel, std::move(text), std::move(ticket));
    ++fCounts.textsReceived;
}

void EngineEnd::announce(Gateway& gateway, const frame::Announce& announce) {
    auto client = std::string(announce.client);
    if (!kirogateway::isPlain(client)) client = text::escaped(client);
    auto& views = gateway.views;
    if (announce.kind == GatewayEnd::ViewKind::kReturn) {
        const auto known = views.find(announce.view);
        const auto count = known == views.end() ? 0 : known->second;
        return fHost.view(EngineHost::View::kReturn, count, client);
    }
    ++fViews;
    if (announce.view != 0) views[announce.view] = fViews;
    if (views.size() > kMostViews) views.erase(views.begin());
    const auto kind = fViews == 1 ? EngineHost::View::kFirst : EngineHost::View::kFurther;
    fHost.view(kind, fViews, client);
}

// --- What is sent -------------------------------------------------------------------------------

void EngineEnd::send(const std::string& gateway, const frame::Header& header,
                     const frame::Body& body) {
    auto bytes = std::make_shared<const std::string>(writeFrame(header, body));
    // What is lost is asked for, or said, again.
    static_cast<void>(fCluster.publish(subjects::to(fSettings.session, gateway), std::move(bytes)));
}

}  // namespace kirolink
