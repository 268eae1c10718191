#include "Frames.hpp"

#include <algorithm>
#include <utility>

#include "checked/Require.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "kiroutils/KiroTerminatingCondition.hpp"

namespace kirofigures::detail {

namespace {

/// For how long a page that nobody sees leaves the word to the others: the time between frames of
/// a page that is hardly moving.
constexpr std::chrono::milliseconds kGrace(250);

bool isSeen(const Contact::Reports& reports) {
    return reports.best && reports.best->outcome != Outcome::kHidden &&
           reports.best->outcome != Outcome::kPaused;
}

}  // namespace

using kiroutils::KiroTerminatingCondition;

Frames::Frames(Means means) : fMeans(std::move(means)), fLatest(fMeans.requestors.front().get()) {
    // Only a token that has come back leaves stamps; one that the host gave up leaves none.
    for (const auto& requestor : fMeans.requestors) requestor->enableTimeStampLogging(true);
}

void Frames::waitUntil(const std::function<bool()>& condition) {
    kiroutils::KiroBlockingOperation::waitOrThrow(
        std::make_unique<KiroTerminatingCondition>("figures", condition,
                                                   std::chrono::seconds::max()),
        {});
}

Drawn Frames::draw() {
    if (std::exchange(fIsRepeating, false)) abandon();
    const std::uint64_t frame = fNext;
    if (frame == 0 && fMeans.waitsForPage) {
        waitUntil([this] { return hasPage() || !fMeans.isOpen(); });
    }
    ++fNext;
    if (!fMeans.isOpen() || !hasPage()) return nobodySees(frame);
    fFlights.push_back({frame, &nextRequestor()});
    send();
    if (fFlights.size() < fMeans.requestors.size()) return {Outcome::kUnderWay, frame, {}};
    try {
        return awaitOldest();
    } catch (...) {
        // Else the next draw would be told of this frame, and each one of the frame before it.
        abandon();
        throw;
    }
}

bool Frames::isRepeatDue() const { return fNext > 0 && isNewToPage() && hasPage(); }

void Frames::repeat() {
    KIROWEB_REQUIRE(fNext > 0);
    if (fFlights.empty()) {
        fFlights.push_back({fNext - 1, &nextRequestor(), fAttempts});
        fIsRepeating = true;
    }
    send();
}

bool Frames::hasPage() const {
    return fMeans.contact.arrivals() > 0 && !fMeans.surroundings.isPageGone();
}

bool Frames::isNewToPage() const {
    return !fArePagesCurrent || fMeans.contact.arrivals() != fArrivals;
}

kiro::web::PubSubACTRequestor& Frames::nextRequestor() {
    return *fMeans.requestors[fTurn++ % fMeans.requestors.size()];
}

void Frames::send() {
    try {
        if (!isNewToPage()) {
            send(fFlights.back());
            return;
        }
        bool isAnySent = false;
        for (auto& flight : fFlights) {
            if (flight.isSent && !flight.requestor->isACTPending()) continue;
            send(flight);
            isAnySent = true;
        }
        // All are answered, by pages that were there before.
        if (!isAnySent) send(fFlights.back());
    } catch (...) {
        abandon();
        throw;
    }
}

void Frames::send(Flight& flight) {
    flight.requestor->discardAllTokens();
    flight.requestor->clearTimeStampLog();
    sendCommands(flight);
    flight.requestor->setAnnotation("frame " + std::to_string(flight.frame));
    // Once: pages that come again and again must not hold the engine.
    if (!flight.isSent) flight.deadline = fMeans.surroundings.now() + fMeans.timeout;
    fLatest = flight.requestor;
    fAttempts = flight.attempt;
    flight.requestor->sendACT();
    flight.isSent = true;
    fMeans.recording.sent(fMeans.scene, fMeans.outlet, fMeans.surroundings.now());
}

void Frames::sendCommands(Flight& flight) {
    // What comes from here on is another attempt's affair.
    const auto arrivals = fMeans.contact.arrivals();
    const bool isWhole = !std::exchange(fArePagesCurrent, false) || arrivals != fArrivals;
    fArrivals = arrivals;
    fMeans.recording.begin({flight.frame, ++flight.attempt, isWhole});
    fMeans.outlet.beginFrame(flight.frame, flight.attempt, isWhole);
    fMeans.scene.send(fMeans.outlet, isWhole);
    fArePagesCurrent = true;
}

Drawn Frames::awaitOldest() {
    for (;;) {
        const Flight& oldest = fFlights.front();
        bool isAnswered = false;
        waitUntil([this, &oldest, &isAnswered] {
            isAnswered = !oldest.requestor->isACTPending();
            return isAnswered || !fMeans.isOpen() || isNewToPage() ||
                   fMeans.surroundings.isPageGone() || fMeans.surroundings.now() >= oldest.deadline;
        });
        if (isAnswered) return answered(oldest);
        if (!fMeans.isOpen() || fMeans.surroundings.isPageGone()) return nobodySees(oldest.frame);
        if (!isNewToPage()) return over({0, 0, Outcome::kLate, fMeans.surroundings.lateCause()});
        send();
    }
}

Contact::Reports Frames::reportsOf(const Flight& flight) {
    const auto& world = fMeans.surroundings;
    const auto end = std::min(flight.deadline, world.now() + kGrace);
    Contact::Reports reports;
    waitUntil([this, &reports, &flight, &world, end] {
        reports = fMeans.contact.reports(flight.frame, flight.attempt);
        return reports.count == 0 || isSeen(reports) || reports.count >= world.numPages() ||
               !fMeans.isOpen() || isNewToPage() || world.now() >= end;
    });
    return reports;
}

Drawn Frames::answered(const Flight& flight) {
    auto report = reportsOf(flight).best;
    if (report) return over(std::move(*report));
    if (!flight.requestor->hasTimeStamps()) {
        return over({0, 0, Outcome::kLate, fMeans.surroundings.lateCause()});
    }
    return over({0, 0, Outcome::kFailed, "the page does not say what became of the frame"});
}

Drawn Frames::over(FrameReport report) {
    const Flight flight = fFlights.front();
    fFlights.pop_front();
    // The stamps of a token that is late may be written just now.
    report.frame = flight.frame;
    report.attempt = flight.attempt;
    fMeans.recording.over(report, report.outcome == Outcome::kLate ? nullptr : flight.requestor);
    flight.requestor->discardAllTokens();
    return {report.outcome, flight.frame, std::move(report.error)};
}

Drawn Frames::nobodySees(std::uint64_t frame) {
    const Outcome outcome = fMeans.isOpen() ? Outcome::kNoPage : Outcome::kInterrupted;
    bool wasSent = false;
    for (const auto& flight : fFlights) {
        fMeans.recording.over({flight.frame, flight.attempt, outcome, {}}, nullptr);
        wasSent = wasSent || flight.frame == frame;
    }
    if (!wasSent) fMeans.recording.over({frame, 0, outcome, {}}, nullptr);
    abandon();
    // A page that comes may hear what is sent before it has said that it is there.
    fArePagesCurrent = false;
    return {outcome, frame, {}};
}

void Frames::abandon() noexcept {
    for (const auto& flight : fFlights) {
        try {
            flight.requestor->discardAllTokens();
        } catch (...) {  // it has, and could not write so into its log
        }
    }
    fFlights.clear();
}

}  // namespace kirofigures::detail
