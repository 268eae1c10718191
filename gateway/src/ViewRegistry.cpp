#include "ViewRegistry.hpp"

#include <algorithm>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "Clock.hpp"
#include "Report.hpp"
#include "WebSocketFrame.hpp"
#include "kiroutils/Logger.hpp"
#include "records/EventRecord.hpp"
#include "secret/RandomHex.hpp"
#include "secret/Secrets.hpp"
#include "text/Escape.hpp"

namespace kirogateway {
namespace {

constexpr std::size_t kViewBytes = 16;
constexpr std::size_t kRememberedEnds = 32;

/// What a close frame and a later hello say.
std::string reasonText(wire::CloseCode code, std::string_view why) {
    std::string text;
    if (code == wire::CloseCode::kTooSlow) text = "too slow: ";
    if (code == wire::CloseCode::kBadMessage) text = "bad message: ";
    if (code == wire::CloseCode::kBadReturn) text = "bad return: ";
    return text += why;
}

/// Calls that take memory and tell somebody of something that has happened anyway.
template <typename Call>
void tellIfPossible(const Call& call) noexcept {
    try {
        call();
    } catch (...) {  // no memory, or an observer of the log that throws: it happened nevertheless
    }
}

}  // namespace

ViewRegistry::ViewRegistry(std::shared_ptr<Context> context, std::shared_ptr<Wakeup> wakeup,
                           Inbound& inbound, std::function<void()> lastPageGone,
                           std::uint64_t before)
    : fContext(std::move(context)),
      fWakeup(std::move(wakeup)),
      fInbound(inbound),
      fOnLastPageGone(std::move(lastPageGone)),
      fMaySubscribe(fContext->options.maySubscribe),
      fLanes(fContext->options.lanes.size() + 1),
      fViewCount(before),
      fSnapshot(std::make_shared<const Views>()),
      fHolder(std::in_place, fContext->memory->account(), *this) {}

std::shared_ptr<const ViewRegistry::Views> ViewRegistry::views() const {
    annotated::Lock lock(fMutex);
    return fSnapshot;
}

// --- Arriving ----------------------------------------------------------------------------------

std::shared_ptr<View> ViewRegistry::findView(std::string_view name) const {
    annotated::Lock lock(fMutex);
    for (const auto& view : fViews) {
        if (secret::isSecret(name, view->identity().name)) return view;
    }
    return nullptr;
}

std::shared_ptr<View> ViewRegistry::welcome(const wire::Hello& hello, Arrival arrival,
                                            TimePoint now) {
    if (fIsShut) return nullptr;
    if (!hello.view.empty()) {
        if (auto view = resume(hello, arrival, now)) return view;
    }
    return begin(hello, arrival, now);
}

bool ViewRegistry::isAllowed(std::string_view channel) const {
    return channel.size() <= wire::kMaxChannelName && fMaySubscribe.covers(channel);
}

ViewRegistry::Prepared ViewRegistry::prepare(const wire::Hello& hello, wire::Welcome&& welcome,
                                             ChannelList&& subscriptions) const {
    for (const auto& channel : hello.subscribe) {
        const bool isAdded = isAllowed(channel) &&
                             subscriptions.addUpTo(fContext->options.limits.subscriptions, channel);
        if (!isAdded) welcome.refused.push_back(channel);
    }
    welcome.subscribed = subscriptions.channels();
    welcome.others = fContext->others;
    Prepared prepared;
    prepared.greeting.channelsNamed = welcome.blockChannels.size();
    prepared.greeting.hello.push_back(
        makeFrame(Opcode::kText, wire::helloText(welcome, fContext->options)));
    prepared.subscriptions = std::move(subscriptions);
    return prepared;
}

std::shared_ptr<View> ViewRegistry::resume(const wire::Hello& hello, Arrival& arrival,
                                           TimePoint now) {
    // What may fail comes first.
    auto view = findView(hello.view);
    if (view == nullptr) return nullptr;
    if (!view->canResume(hello.last)) {
        const auto* failure = view->failure();
        failure != nullptr
            ? dismiss(view, wire::CloseCode::kTooSlow, failure)
            : dismiss(view, wire::CloseCode::kBadReturn, "\"last\" is not what was sent and kept");
        return nullptr;
    }
    const auto& name = view->identity().name;
    auto prepared = prepare(
        hello, {name, wire::ViewKind::kReturn, hello.last + 1, view->blockChannels(), {}, {}, {}},
        view->subscriptions());
    // What has begun from here on cannot fail.
    {
        annotated::Lock lock(fMutex);
        moveTo(fOthers, *view);  // nobody makes room with it any more
    }
    if (auto* old = view->connection()) {
        auto rest = view->detachBetweenFrames(now, View::Fate::kEnds);
        rest.isCut ? old->cut()
                   : old->close(static_cast<std::uint16_t>(wire::CloseCode::kReturnedElsewhere),
                                "returned elsewhere", std::move(rest.bytes));
    }
    view->setSubscriptions(std::move(prepared.subscriptions));
    PageBlocks left;
    view->resume(hello, left);
    view->attach(arrival.connection, std::move(arrival.socket), arrival.isDirect,
                 std::move(prepared.greeting), now);
    ++fVersion;
    ++fContext->counters->returns;
    leaveAll(left);
    recount();
    view->write();
    // It has returned, whoever hears of it.
    fContext->log.write("page returned", view->identity().client);
    fInbound.announce(wire::ViewKind::kReturn, view->identity());
    return view;
}

std::string ViewRegistry::endedText(const std::string& name) const {
    annotated::Lock lock(fMutex);
    for (const auto& ended : fEnded) {
        if (!name.empty() && ended.view == name) return ended.why;
    }
    return {};
}

std::shared_ptr<View> ViewRegistry::begin(const wire::Hello& hello, Arrival& arrival,
                                          TimePoint now) {
    // What may fail comes first.
    View::Identity identity{secret::randomHex(kViewBytes), fViewCount + 1, hello.client};
    const auto kind = identity.count > 1 ? wire::ViewKind::kFurther : wire::ViewKind::kFirst;
    auto prepared = prepare(hello, {identity.name, kind, 1, {}, {}, {}, endedText(hello.view)}, {});
    auto view =
        std::make_shared<View>(std::move(identity), View::Abilities{hello.resume, hello.maxBlock},
                               fContext, fWakeup, fLanes, now);
    view->setSubscriptions(std::move(prepared.subscriptions));
    addView(view);
    // What has begun from here on cannot fail. When the page reads the hello, it counts;
    // what is published meanwhile waits behind the hello.
    ++fViewCount;
    ++fContext->counters->views;
    view->attach(arrival.connection, std::move(arrival.socket), arrival.isDirect,
                 std::move(prepared.greeting), now);
    recount();
    view->write();
    // It is there, whoever hears of it.
    fContext->log.write("page connected", view->identity().client);
    fInbound.announce(kind, view->identity());
    return view;
}

void ViewRegistry::addView(const std::shared_ptr<View>& view) {
    annotated::Lock lock(fMutex);
    auto snapshot = std::make_shared<Views>();
    snapshot->reserve(fViews.size() + 1);
    *snapshot = fViews;
    snapshot->push_back(view);
    List node{view};
    fViews.push_back(view);
    view->place() = {&fOthers, node.begin()};
    fOthers.splice(fOthers.end(), node);
    fSnapshot = std::move(snapshot);
    fIsStale = false;
    ++fVersion;
}

// --- Leaving -----------------------------------------------------------------------------------

void ViewRegistry::lost(const std::shared_ptr<View>& view, const Connection& connection,
                        TimePoint now) noexcept {
    if (view->connection() != &connection) return;
    if (!view->mayReturn()) return left(view, connection);
    view->detach(now, View::Fate::kMayReturn);
    noteLost(view);
    fContext->log.write("connection lost", view->identity().client);
    afterLoss();
}

void ViewRegistry::afterLoss() noexcept {
    const Batch batch(*this);
    for (;;) {
        bool areTooMany = false;
        std::shared_ptr<View> next;
        {
            annotated::Lock lock(fMutex);
            const auto count = fLost.size() + fFailing.size();
            areTooMany = count > fContext->options.limits.lostViews;
            if (!areTooMany && !fContext->lostMemory->isExceeded()) return;
            const auto& from = fFailing.empty() ? fLost : fFailing;
            if (from.empty()) return;
            next = from.front();
        }
        if (const auto* failure = next->failure()) {
            dismiss(next, wire::CloseCode::kTooSlow, failure);
        } else {
            end(next,
                areTooMany ? "too many views had lost their connections" : View::kTooMuchLost);
        }
    }
}

void ViewRegistry::noteLost(const std::shared_ptr<View>& view) noexcept {
    annotated::Lock lock(fMutex);
    moveTo(fLost, *view);
}

void ViewRegistry::moveTo(List& to, View& view) noexcept {
    auto& place = view.place();
    to.splice(to.end(), *place.in, place.at);
    place.in = &to;
}

void ViewRegistry::left(const std::shared_ptr<View>& view, const Connection& connection) noexcept {
    if (view->connection() != &connection) return;
    view->detach(timeNow(), View::Fate::kEnds);
    fContext->log.write("page left", view->identity().client);
    end(view, "the page closed it");
}

void ViewRegistry::dismiss(const std::shared_ptr<View>& view, wire::CloseCode code,
                           std::string_view why) noexcept {
    if (view->state() == View::State::kOver) return;
    std::string reason;
    tellIfPossible([&] { reason = reasonText(code, why); });
    auto* const connection = view->connection();
    auto rest = view->detachBetweenFrames(timeNow(), View::Fate::kEnds);
    ++fContext->counters->disconnected;
    recordDisconnect(*view, reason);
    end(view, reason);
    if (connection == nullptr) return;
    if (rest.isCut) return connection->cut();
    connection->close(static_cast<std::uint16_t>(code),
                      std::string_view(reason).substr(0, kMaxReason), std::move(rest.bytes));
}

void ViewRegistry::end(const std::shared_ptr<View>& view, std::string_view why) noexcept {
    const Batch batch(*this);
    PageBlocks left;
    view->retire(left);
    fAnyEnded = true;
    {
        annotated::Lock lock(fMutex);
        const auto& place = view->place();
        place.in->erase(place.at);
        rememberLocked(view->identity().name, why);
    }
    leaveAll(left);
    view->blocksLeft();
}

void ViewRegistry::sweep() noexcept {
    const bool hasEnded = std::exchange(fAnyEnded, false);
    const bool isGone = std::exchange(fAnyIsGone, false);
    const auto before = views();  // whatever it alone holds goes when the lock is free again
    if (hasEnded) {
        annotated::Lock lock(fMutex);
        std::erase_if(fViews, [](const auto& view) { return view->state() == View::State::kOver; });
        refreshLocked();
    }
    if (hasEnded || isGone) recount();
}

void ViewRegistry::recordDisconnect(const View& view, std::string_view why) noexcept {
    tellIfPossible([&] {
        const auto event = "page disconnected, " + std::string(why);
        const auto& client = view.identity().client;
        fContext->log.write(event, client);
        // The history that a time-out prints shows then why nobody answers.
        auto& logger = kiroutils::Logger::instance();
        if (!logger.isHistoryEnabled(records::kDrawnowTimeoutLog)) return;
        logger.log(records::kDrawnowTimeoutLog,
                   historyText("Page Disconnected", event + ": " + text::escaped(client)));
    });
}

void ViewRegistry::tell(std::string_view control) const {
    const auto all = views();
    for (const auto& view : *all) view->sendControl(control);
}

void ViewRegistry::shut(std::string_view why, wire::CloseCode code) noexcept {
    fIsShut = true;
    // What they hold counts as given back before nobody can be asked for it any more: another
    // gateway's page must not end for it.
    for (const auto all = this->views(); const auto& view : *all) view->fail("gateway stopped");
    Views views;
    {
        annotated::Lock lock(fMutex);
        views.swap(fViews);
        for (auto* list : {&fOthers, &fLost, &fFailing}) list->clear();
        refreshLocked();
    }
    const auto now = timeNow();
    for (const auto& view : views) {
        PageBlocks left;
        auto* const connection = view->connection();
        auto rest = view->detachBetweenFrames(now, View::Fate::kEnds);
        view->retire(left);
        leaveAll(left);
        view->blocksLeft();
        if (connection == nullptr) continue;
        ++fContext->counters->disconnected;
        rest.isCut ? connection->cut()
                   : connection->close(static_cast<std::uint16_t>(code), why.substr(0, kMaxReason),
                                       std::move(rest.bytes));
    }
    fHolder.reset();
    if (!views.empty()) fContext->log.write(why, {});
    recount();
}

// --- Room --------------------------------------------------------------------------------------

bool ViewRegistry::makeLostRoom() noexcept {
    std::shared_ptr<View> oldest;
    {
        annotated::Lock lock(fMutex);
        if (fLost.empty()) return false;
        oldest = fLost.front();
        moveTo(fFailing, *oldest);
    }
    oldest->fail(View::kTooMuchLost);  // one that had failed before has let go of its texts already
    return true;
}

// --- What pages do -----------------------------------------------------------------------------

bool ViewRegistry::subscribe(View& view, std::string_view channel) {
    if (!isAllowed(channel)) return false;
    const auto done = view.subscribe(channel, fContext->options.limits.subscriptions);
    if (done == View::Subscribed::kNow) ++fVersion;  // else no route changes
    return done != View::Subscribed::kRefused;
}

void ViewRegistry::unsubscribe(View& view, std::string_view channel) {
    if (view.unsubscribe(channel)) ++fVersion;
}

// --- Time --------------------------------------------------------------------------------------

void ViewRegistry::tick(TimePoint now) noexcept {
    {
        annotated::Lock lock(fMutex);
        if (fIsStale) refreshLocked();
    }
    const Batch batch(*this);
    const auto all = views();
    for (const auto& view : *all) {
        try {
            act(view, now);
        } catch (...) {  // no memory for a ping
            fContext->log.writeCaught("a view's time");
        }
    }
    if (fContext->lostMemory->isExceeded()) afterLoss();
}

void ViewRegistry::act(const std::shared_ptr<View>& view, TimePoint now) {
    PageBlocks left;
    const auto due = view->look(now, left);
    leaveAll(left);
    switch (due) {
        case View::Due::kNothing:
            return;
        case View::Due::kPing:
            return view->ping();
        case View::Due::kFail:
            return dismiss(view, wire::CloseCode::kTooSlow, view->failure());
        case View::Due::kSilent:
            return endSilent(view, now);
        case View::Due::kGone:
            fAnyIsGone = true;
            return;
        case View::Due::kEnd:
            return end(view, "it did not return in time");
    }
}

void ViewRegistry::endSilent(const std::shared_ptr<View>& view, TimePoint now) noexcept {
    auto* const connection = view->connection();
    auto rest = view->detachBetweenFrames(now, View::Fate::kMayReturn);
    recordDisconnect(*view, "no sign of life");
    ++fContext->counters->disconnected;
    rest.isCut ? connection->cut()
               : connection->close(static_cast<std::uint16_t>(wire::CloseCode::kSilent),
                                   "no sign of life", std::move(rest.bytes));
    if (!view->mayReturn()) return end(view, "no sign of life");
    noteLost(view);
    afterLoss();
}

// --- State -------------------------------------------------------------------------------------

void ViewRegistry::refreshLocked() noexcept {
    ++fVersion;
    fIsStale = true;
    try {
        fSnapshot = std::make_shared<const Views>(fViews);
        fIsStale = false;
    } catch (const std::bad_alloc&) {  // the next tick tries again
    }
}

void ViewRegistry::rememberLocked(const std::string& name, std::string_view why) noexcept {
    try {
        fEnded.push_back({name, std::string(why)});
        if (fEnded.size() > kRememberedEnds) fEnded.pop_front();
    } catch (const std::bad_alloc&) {  // its page is not told why
    }
}

void ViewRegistry::recount() noexcept {
    std::size_t count = 0;
    {
        annotated::Lock lock(fMutex);
        const auto isThere = [](const auto& view) { return view->isThere(); };
        count = static_cast<std::size_t>(std::ranges::count_if(fViews, isThere));
    }
    const bool isThere = count > 0;
    fInbound.pages(count);
    fAnyWasThere = fAnyWasThere || isThere;
    const bool isGone = fAnyWasThere && !isThere;
    if (fLastPageGone.exchange(isGone) || !isGone) return;
    fContext->log.write("the last page has gone", {});
    try {
        fOnLastPageGone();
    } catch (...) {
        fContext->log.writeCaught("onLastPageGone");
    }
}

Statistics ViewRegistry::statistics() const {
    const auto all = views();
    Statistics statistics;
    statistics.pages = static_cast<std::size_t>(std::ranges::count_if(
        *all, [](const auto& view) { return view->state() == View::State::kConnected; }));
    for (const auto& figure : kFigures) {
        statistics.*figure.shown = *fContext->counters.*figure.counted;
    }
    return statistics;
}

std::string ViewRegistry::diagnostics(TimePoint now) const {
    std::vector<ViewReport> reports;
    const auto all = views();  // kept while it is gone through
    for (const auto& view : *all) {
        reports.push_back({view->identity().count, view->identity().client, view->report(now)});
    }
    return diagnosticsText(statistics(), lastPageGone(), fContext->memory->used(), reports);
}

}  // namespace kirogateway
