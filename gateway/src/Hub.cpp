#include "Hub.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

#include "Report.hpp"
#include "Secrets.hpp"
#include "TextEncoding.hpp"
#include "WebSocketFrame.hpp"
#include "kiroutils/Logger.hpp"
#include "relay/message_service/MessageService.hpp"

namespace kirogateway {
namespace {

constexpr std::size_t kViewBytes = 16;
constexpr std::size_t kRememberedEnds = 32;
constexpr std::size_t kMaxChannelName = 1024;  // what a page may name
constexpr int kSilencesUntilLost = 3;

std::vector<ChannelList> listsOf(const std::vector<std::vector<std::string>>& lanes) {
    return {lanes.begin(), lanes.end()};
}

/// Texts on channels that a batch cannot name are not carried.
bool canBeNamed(std::string_view channel) { return isPlain(channel); }

}  // namespace

Hub::Hub(Options options, std::function<void()> wake)
    : fOptions(std::move(options)),
      fWake(std::move(wake)),
      fMayPublish(fOptions.mayPublish),
      fMaySubscribe(fOptions.maySubscribe),
      fLanes(listsOf(fOptions.lanes)),
      fCounters(std::make_shared<Counters>()),
      fAudience(std::make_shared<const Pages>()),
      fPages(fAudience) {}

void Hub::connect(relay::TransportLink& link,
                  relay::binary::experimental::ClientEnd* end) noexcept {
    fLink = &link;
    fEnd = end;
}

// --- Publishing threads ------------------------------------------------------------------------

std::shared_ptr<const Hub::Pages> Hub::pages() const {
    annotated::Lock lock(fMutex);
    return fPages;
}

const Hub::Pages& Hub::audience() {
    if (const auto version = fPagesVersion.load(); version != fAudienceVersion) {
        fAudience = pages();
        fAudienceVersion = version;
    }
    return *fAudience;
}

std::size_t Hub::laneOf(std::string_view channel) const {
    for (std::size_t i = 0; i < fLanes.size(); ++i) {
        if (fLanes[i].matches(channel)) return i + 1;
    }
    return 0;
}

void Hub::messagePublished(const relay::Publication& message) {
    const auto& views = audience();
    if (views.empty() || !canBeNamed(message.channel())) return;
    Text text{message.channel(), message.text(), false, laneOf(message.channel())};
    std::string encoded;
    try {
        if (!isPlain(text.text)) {
            encoded = encodeBase64(text.text);
            text.text = encoded;
            text.isBase64 = true;
        }
    } catch (const std::bad_alloc&) {
        for (const auto& page : views) page->fail("no memory for a text");
        return;
    }
    std::uint64_t count = 0;
    for (const auto& page : views) {
        if (page->publish(text)) ++count;
    }
    // Under the publish lock nobody else counts texts.
    auto& sent = fCounters->textsSent;
    sent.store(sent.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
}

void Hub::offer(relay::binary::experimental::Delivery delivery) {
    const auto views = pages();
    const std::string channel = delivery.channel();
    const auto lane = laneOf(channel);
    const auto transfer = std::make_shared<Transfer>(std::move(delivery), fCounters);
    const auto now = std::chrono::steady_clock::now();
    bool anybodyJoined = false;
    bool anybodyRefused = false;
    if (canBeNamed(channel)) {
        for (const auto& page : *views) {
            const auto part = page->offer(channel, lane, transfer, now);
            anybodyJoined = anybodyJoined || part == Page::Part::kJoined;
            anybodyRefused = anybodyRefused || part == Page::Part::kRefused;
        }
    }
    transfer->close(anybodyJoined && !anybodyRefused);
}

// --- Arriving ----------------------------------------------------------------------------------

std::shared_ptr<Page> Hub::findView(const std::string& view) const {
    annotated::Lock lock(fMutex);
    for (const auto& known : fViews) {
        if (isSecret(view, known.page->identity().view)) return known.page;
    }
    return nullptr;
}

std::shared_ptr<Page> Hub::welcome(const wire::Hello& hello,
                                   const std::shared_ptr<Carrier>& carrier, int socket,
                                   TimePoint now) {
    if (fIsShut) return nullptr;
    if (!hello.view.empty()) {
        if (auto page = resume(hello, carrier, socket, now)) return page;
    }
    return begin(hello, carrier, socket, now);
}

std::shared_ptr<Page> Hub::resume(const wire::Hello& hello, const std::shared_ptr<Carrier>& carrier,
                                  int socket, TimePoint now) {
    auto page = findView(hello.view);
    if (page == nullptr) return nullptr;
    if (!page->canResume(hello.last)) {
        const auto failure = page->failure();
        dismiss(page, wire::CloseCode::kTooSlow,
                failure.empty() ? "what was missed is not there any more" : failure);
        return nullptr;
    }
    if (const auto old = page->carrier()) {
        auto rest = page->detach();
        old->close(static_cast<std::uint16_t>(wire::CloseCode::kReturnedElsewhere),
                   "returned elsewhere", std::move(rest));
    }
    wire::Welcome welcome{
        page->identity().view, wire::ViewKind::kReturn, hello.last + 1, {}, {}, {}, {}};
    for (const auto& channel : hello.subscribe) {
        if (!subscribe(*page, channel)) welcome.refused.push_back(channel);
    }
    welcome.blockChannels = page->blockChannels();
    welcome.subscribed = page->subscriptions();
    const Page::Greeting greeting{wire::helloText(welcome, fOptions), welcome.blockChannels.size()};
    {
        annotated::Lock lock(fMutex);
        if (auto* view = findLocked(*page)) *view = {page, true, true, {}, false};
        static_cast<void>(recountLocked());
    }
    ++fCounters->returns;
    LeavingList leaving;
    page->reattach(carrier, socket, greeting, hello, now, leaving);
    release(std::move(leaving));
    fLog.write("page returned", page->identity().client, now);
    announce(fOptions.reconnectChannel, wire::ViewKind::kReturn, *page);
    return page;
}

std::shared_ptr<Page> Hub::begin(const wire::Hello& hello, const std::shared_ptr<Carrier>& carrier,
                                 int socket, TimePoint now) {
    Page::Identity identity{randomHex(kViewBytes), 0, hello.client, hello.resume, hello.maxBlock};
    wire::Welcome welcome{identity.view, wire::ViewKind::kFirst, 1, {}, {}, {}, {}};
    {
        annotated::Lock lock(fMutex);
        identity.count = ++fViewCount;
        for (const auto& ended : fEnded) {
            if (!hello.view.empty() && ended.view == hello.view) welcome.ended = ended.why;
        }
    }
    if (identity.count > 1) welcome.kind = wire::ViewKind::kFurther;
    auto page =
        std::make_shared<Page>(std::move(identity), fOptions.limits, fLanes.size() + 1, now);
    for (const auto& channel : hello.subscribe) {
        if (!subscribe(*page, channel)) welcome.refused.push_back(channel);
    }
    welcome.subscribed = page->subscriptions();
    const Page::Greeting greeting{wire::helloText(welcome, fOptions), 0};
    // Before it gets its connection: when it reads the hello, it counts. What is published
    // meanwhile waits behind the hello.
    {
        annotated::Lock lock(fMutex);
        fViews.push_back({page, true, true, {}, false});
        refreshLocked();
        static_cast<void>(recountLocked());
    }
    ++fCounters->views;
    page->attach(carrier, socket, greeting, now);
    fLog.write("page connected", page->identity().client, now);
    announce(fOptions.newViewChannel, welcome.kind, *page);
    return page;
}

void Hub::announce(const std::string& channel, wire::ViewKind kind, const Page& page) {
    if (channel.empty()) return;
    const auto text = wire::announcementText(kind, page.identity().count, page.identity().client);
    fLink->deliver(channel, std::make_shared<const std::string>(text), {});
}

// --- Leaving -----------------------------------------------------------------------------------

void Hub::lost(const std::shared_ptr<Page>& page, const Carrier& carrier, TimePoint now) {
    if (page->carrier().get() != &carrier) return;
    if (!page->identity().mayReturn) return left(page, carrier);
    static_cast<void>(page->detach());
    {
        annotated::Lock lock(fMutex);
        if (auto* view = findLocked(*page)) {
            view->isConnected = false;
            view->lostAt = now;
        }
    }
    fLog.write("connection lost", page->identity().client, now);
}

void Hub::left(const std::shared_ptr<Page>& page, const Carrier& carrier) {
    if (page->carrier().get() != &carrier) return;
    static_cast<void>(page->detach());
    fLog.write("page left", page->identity().client, std::chrono::steady_clock::now());
    end(page, "the page closed it");
}

void Hub::dismiss(const std::shared_ptr<Page>& page, wire::CloseCode code, const std::string& why) {
    static constexpr std::size_t kMaxReason = 123;
    const auto carrier = page->carrier();
    auto rest = page->detach();
    auto reason = code == wire::CloseCode::kTooSlow ? "too slow: " + why : why;
    if (code == wire::CloseCode::kBadMessage) reason = "bad message: " + why;
    ++fCounters->disconnected;
    recordDisconnect(*page, reason);
    end(page, reason);
    if (carrier == nullptr) return;
    carrier->close(static_cast<std::uint16_t>(code), reason.substr(0, kMaxReason), std::move(rest));
}

void Hub::end(const std::shared_ptr<Page>& page, const std::string& why) {
    LeavingList leaving;
    page->retire(leaving);
    bool lastHasGone = false;
    {
        annotated::Lock lock(fMutex);
        std::erase_if(fViews, [&page](const View& view) { return view.page == page; });
        refreshLocked();
        lastHasGone = recountLocked();
        fEnded.push_back({page->identity().view, why});
        if (fEnded.size() > kRememberedEnds) fEnded.pop_front();
    }
    release(std::move(leaving));
    wakeIf(lastHasGone);
}

void Hub::recordDisconnect(const Page& page, std::string_view why) {
    const auto event = "page disconnected, " + std::string(why);
    const auto& client = page.identity().client;
    fLog.write(event, client, std::chrono::steady_clock::now());
    // The history that a time-out prints shows then why nobody answers.
    auto& logger = kiroutils::Logger::instance();
    if (!logger.isHistoryEnabled("DrawnowTimeout")) return;
    logger.log("DrawnowTimeout", historyText("Page Disconnected", event + ": " + escaped(client)));
}

void Hub::release(LeavingList leaving) {
    for (auto& [transfer, hasBlock] : leaving) transfer->leave(hasBlock);
}

void Hub::shut() {
    fIsShut = true;
    const auto views = pages();
    for (const auto& page : *views) {
        dismiss(page, wire::CloseCode::kStopped, "gateway stopped");
    }
}

// --- What pages do -----------------------------------------------------------------------------

bool Hub::subscribe(Page& page, std::string_view channel) const {
    if (channel.size() > kMaxChannelName || !fMaySubscribe.covers(channel)) return false;
    if (page.subscriptionCount() >= fOptions.limits.subscriptions) return false;
    page.subscribe(channel);
    return true;
}

bool Hub::publish(const std::string& channel, std::string_view text) {
    if (channel.size() > kMaxChannelName || !fMayPublish.matches(channel)) return false;
    ++fCounters->textsReceived;
    fLink->deliver(channel, std::make_shared<const std::string>(text), {});
    return true;
}

bool Hub::publishBlock(const std::string& channel, std::string_view block) {
    if (fEnd == nullptr || channel.size() > kMaxChannelName) return false;
    if (!fMayPublish.matches(channel)) return false;
    ++fCounters->blocksReceived;
    const auto capacity = std::max<std::size_t>(block.size(), 1);
    auto* bytes = static_cast<char*>(std::malloc(capacity));
    if (bytes == nullptr) throw std::bad_alloc();
    const relay::common::DataBuffer buffer(bytes, capacity, block.size());
    if (!block.empty()) std::memcpy(bytes, block.data(), block.size());
    fEnd->send(channel, buffer);
    return true;
}

// --- Time --------------------------------------------------------------------------------------

void Hub::tick(TimePoint now) {
    Due due;
    bool lastHasGone = false;
    {
        annotated::Lock lock(fMutex);
        due = collectDueLocked(now);
        lastHasGone = recountLocked();
    }
    LeavingList leaving;
    for (const auto& page : due.gone) page->dropBlocks(leaving);
    for (const auto& page : due.toPing) page->sendFrames(makeFrame(Opcode::kPing, {}), now);
    for (const auto& page : due.toCheck) {
        const auto failure = page->checkTimes(now, leaving);
        if (!failure.empty()) dismiss(page, wire::CloseCode::kTooSlow, failure);
    }
    release(std::move(leaving));
    wakeIf(lastHasGone);
    for (const auto& page : due.over) end(page, "it did not return in time");
    for (const auto& page : due.silent) {
        const auto carrier = page->carrier();
        auto rest = page->detach();
        {
            annotated::Lock lock(fMutex);
            if (auto* view = findLocked(*page)) {
                view->isConnected = false;
                view->lostAt = now;
            }
        }
        // None, if there was no memory for its connection's beginning.
        if (carrier == nullptr) continue;
        recordDisconnect(*page, "no sign of life");
        ++fCounters->disconnected;
        carrier->close(static_cast<std::uint16_t>(wire::CloseCode::kSilent), "no sign of life",
                       std::move(rest));
    }
}

Hub::Due Hub::collectDueLocked(TimePoint now) {
    const auto& limits = fOptions.limits;
    Due due;
    for (auto& view : fViews) {
        if (view.isConnected) {
            const auto silence = now - view.page->lastSign();
            if (silence > kSilencesUntilLost * limits.ping) {
                due.silent.push_back(view.page);
            } else {
                const bool isQuiet = silence > limits.ping;
                if (isQuiet && !view.isPinged) due.toPing.push_back(view.page);
                view.isPinged = isQuiet;
                due.toCheck.push_back(view.page);
            }
            continue;
        }
        if (!view.page->failure().empty()) {
            due.toCheck.push_back(view.page);
        } else if (now - view.lostAt > limits.comeback) {
            due.over.push_back(view.page);
        }
        if (view.counts && now - view.lostAt > limits.gone) {
            view.counts = false;
            due.gone.push_back(view.page);
        }
    }
    return due;
}

// --- State -------------------------------------------------------------------------------------

Hub::View* Hub::findLocked(const Page& page) {
    const auto found = std::ranges::find_if(
        fViews, [&page](const View& view) { return view.page.get() == &page; });
    return found == fViews.end() ? nullptr : &*found;
}

void Hub::refreshLocked() {
    auto list = std::make_shared<Pages>();
    for (const auto& view : fViews) list->push_back(view.page);
    fPages = std::move(list);
    ++fPagesVersion;
}

bool Hub::recountLocked() {
    const bool isThere = std::ranges::any_of(fViews, [](const View& view) { return view.counts; });
    fAnyWasThere = fAnyWasThere || isThere;
    const bool isGone = fAnyWasThere && !isThere;
    return !fLastPageGone.exchange(isGone) && isGone;
}

void Hub::wakeIf(bool lastHasGone) {
    if (!lastHasGone) return;
    const auto now = std::chrono::steady_clock::now();
    fLog.write("the last page has gone", {}, now);
    try {
        fWake();
    } catch (const std::exception& error) {
        fLog.write("onLastPageGone", error.what(), now);
    }
}

Statistics Hub::statistics() const {
    Statistics all;
    {
        annotated::Lock lock(fMutex);
        all.pages = static_cast<std::size_t>(
            std::ranges::count_if(fViews, [](const View& view) { return view.isConnected; }));
    }
    all.views = fCounters->views;
    all.returns = fCounters->returns;
    all.textsSent = fCounters->textsSent;
    all.blocksDelivered = fCounters->blocksDelivered;
    all.blocksGivenBack = fCounters->blocksGivenBack;
    all.textsReceived = fCounters->textsReceived;
    all.blocksReceived = fCounters->blocksReceived;
    all.refusals = fCounters->refusals;
    all.disconnected = fCounters->disconnected;
    return all;
}

std::string Hub::diagnostics(TimePoint now) const {
    std::vector<PageReport> reports;
    {
        annotated::Lock lock(fMutex);
        for (const auto& view : fViews) {
            reports.push_back({view.page->identity().count, view.page->identity().client,
                               view.counts, view.page->state(now)});
        }
    }
    return diagnosticsText(statistics(), lastPageGone(), reports);
}

}  // namespace kirogateway
