#include "Fanout.hpp"

#include <algorithm>
#include <utility>

#include "Clock.hpp"
#include "TextEncoding.hpp"

namespace kirogateway {
namespace {

/// From this size on a text is shared by the pages instead of copied into a batch of each.
constexpr std::size_t kSharedFrom = 16UL * 1024;
/// Routes are forgotten when there are more: an engine that makes up channels must not fill memory.
constexpr std::size_t kMaxRoutes = 4096;
/// More than a place in a queue takes.
constexpr std::size_t kPlace = 4096;
constexpr const char* kNoMemory = "no memory for a text";
constexpr const char* kTooLarge = "a text was larger than the gateway's memory";

}  // namespace

Fanout::Fanout(std::shared_ptr<Context> context, std::shared_ptr<ViewRegistry> views)
    : fContext(std::move(context)),
      fViews(std::move(views)),
      fLanes(fContext->options.lanes.begin(), fContext->options.lanes.end()) {}

std::size_t Fanout::laneOf(std::string_view channel) const {
    for (std::size_t i = 0; i < fLanes.size(); ++i) {
        if (fLanes[i].matches(channel)) return i + 1;
    }
    return 0;
}

// --- Texts -------------------------------------------------------------------------------------

const Fanout::Route& Fanout::route(const std::string& channel) {
    // Read first: what changes while the route is made shows in the number next time.
    const auto version = fViews->version();
    if (version != fRoutesVersion || fRoutes.size() > kMaxRoutes) {
        fLastRoute = nullptr;
        fRoutes.clear();
        fRoutesVersion = version;
    }
    if (fLastRoute != nullptr && *fLastChannel == channel) return *fLastRoute;
    auto found = fRoutes.find(channel);
    if (found == fRoutes.end()) {
        Route made;
        made.canBeNamed = isPlain(channel);
        made.lane = laneOf(channel);
        const auto all = fViews->views();  // kept while it is gone through
        for (const auto& view : *all) {
            if (made.canBeNamed && view->hears(channel)) made.hearers.push_back(view);
        }
        found = fRoutes.emplace(channel, std::move(made)).first;
    }
    fLastChannel = &found->first;
    fLastRoute = &found->second;
    return *fLastRoute;
}

void Fanout::messagePublished(const relay::Publication& message) {
    const Route* to = nullptr;
    try {
        to = &route(message.channel());
        if (to->hearers.empty()) return;
        Text text{message.channel(), message.text(), false, to->lane, nullptr};
        std::string encoded;
        const auto size = message.text().size();
        if (size > fContext->memory->limit()) {
            logTooLarge("text", size, message.channel());
            for (const auto& view : to->hearers) view->fail(kTooLarge);
        } else if (prepare(message, text, encoded)) {
            for (const auto& view : to->hearers) publish(*view, text);
        } else {
            for (const auto& view : to->hearers) view->fail(View::kMemoryUsedUp);
        }
    } catch (...) {
        // Whoever would have heard it must not go on as if there had been nothing.
        const auto all = fViews->views();
        for (const auto& view : *all) {
            if (view->hears(message.channel())) view->fail(kNoMemory);
        }
    }
}

bool Fanout::prepare(const relay::Publication& message, Text& text, std::string& encoded) {
    if (!isPlain(text.text)) {
        encoded = encodeBase64(text.text);
        text.text = encoded;
        text.isBase64 = true;
    }
    if (text.text.size() < kSharedFrom) return true;
    text.shared = countedBefore(message);
    if (text.shared == nullptr) text.shared = count(message, text, encoded);
    if (text.shared == nullptr) return false;
    text.text = *text.shared->text;
    return true;
}

std::shared_ptr<const SharedText> Fanout::countedBefore(const relay::Publication& message) const {
    auto last = fContext->memory->account()->lastText();
    const bool isSame = last != nullptr && last->text->size() == message.text().size() &&
                        last->text == message.shared();
    return isSame ? last : nullptr;
}

std::shared_ptr<const SharedText> Fanout::count(const relay::Publication& message, const Text& text,
                                                std::string& encoded) {
    const auto size = text.text.size();
    auto shared = std::make_shared<SharedText>();
    if (!shared->charge.grow(fContext->memory, size)) {
        if (!fContext->memory->makeRoom(size)) return nullptr;
        shared->charge.set(fContext->memory, size);
    }
    shared->text =
        text.isBase64 ? std::make_shared<const std::string>(std::move(encoded)) : message.shared();
    fContext->memory->account()->noteText(shared);
    return shared;
}

void Fanout::publish(View& view, const Text& text) noexcept {
    // A batch that grows takes twice what it has. A shared text has been counted.
    const auto batch = fContext->options.limits.batchSize + text.text.size();
    const auto needed = text.shared != nullptr ? kPlace : 2 * (batch + kPlace);
    for (bool isRoomMade = false;;) {
        switch (view.publish(text, isRoomMade)) {
            case Outbox::Added::kYes: {
                // Under the publish lock nobody else counts texts.
                auto& sent = fContext->counters->textsSent;
                sent.store(sent.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
                return;
            }
            case Outbox::Added::kNever:
                return;
            case Outbox::Added::kNoMemory:
                isRoomMade = fContext->memory->makeRoom(needed);
                if (!isRoomMade) return view.fail(View::kMemoryUsedUp);
                break;
            case Outbox::Added::kNoLostRoom:  // there is one less each time
                if (!fViews->makeLostRoom()) return view.fail(View::kTooMuchLost);
                break;
        }
    }
}

// --- Blocks ------------------------------------------------------------------------------------

void Fanout::logTooLarge(const char* what, std::size_t size, std::string_view channel) noexcept {
    const auto limit = fContext->memory->limit();
    try {
        fContext->log.write(std::string("a ") + what + " of " + std::to_string(size) +
                                " bytes can never be sent, the limit is " + std::to_string(limit),
                            channel);
    } catch (...) {  // no memory for a line
    }
}

Charge Fanout::chargeFor(std::string_view channel, std::size_t block) noexcept {
    Charge charge;
    if (block > fContext->memory->limit()) {
        logTooLarge("block", block, channel);
        return charge;
    }
    if (!charge.grow(fContext->memory, block) && fContext->memory->makeRoom(block)) {
        charge.set(fContext->memory, block);
    }
    return charge;
}

View::Part Fanout::offerTo(View& view, std::string_view channel, std::size_t lane,
                           const std::shared_ptr<Transfer>& transfer) noexcept {
    for (bool isRoomMade = false;;) {
        const auto now = timeNow();
        const auto part = view.offer(channel, lane, transfer, now, isRoomMade);
        if (part == View::Part::kNoMemory) {
            isRoomMade = fContext->memory->makeRoom(kPlace);
            if (!isRoomMade) return View::Part::kRefused;
        } else if (part == View::Part::kNoLostRoom) {
            if (!fViews->makeLostRoom()) return View::Part::kRefused;
        } else {
            return part;
        }
    }
}

void Fanout::offer(const std::string& channel, const std::shared_ptr<Transfer>& transfer) noexcept
    try {
    const auto views = fViews->views();
    const auto hears = [&channel](const auto& view) { return view->hears(channel); };
    if (!isPlain(channel) || std::ranges::none_of(*views, hears)) {
        return transfer->close(Transfer::Outcome::kNobody);
    }
    const auto size = transfer->bytes().size();
    auto charge = chargeFor(channel, size);
    if (charge.bytes() != size) return transfer->close(Transfer::Outcome::kRefused);
    transfer->charge(std::move(charge));
    bool anybodyJoined = false;
    bool anybodyRefused = false;
    const auto lane = laneOf(channel);
    for (const auto& view : *views) {
        const auto part = offerTo(*view, channel, lane, transfer);
        anybodyJoined = anybodyJoined || part == View::Part::kJoined;
        anybodyRefused = anybodyRefused || part == View::Part::kRefused;
    }
    using Outcome = Transfer::Outcome;
    transfer->close(anybodyRefused  ? Outcome::kRefused
                    : anybodyJoined ? Outcome::kDelivered
                                    : Outcome::kNobody);
} catch (...) {  // no memory: the transfer gives the block back as it goes
}

void Fanout::offer(relay::binary::experimental::Delivery delivery) noexcept try {
    const std::string channel = delivery.channel();
    offer(channel, std::make_shared<HostTransfer>(std::move(delivery), fContext->counters));
} catch (...) {  // no memory: the delivery gives the block back as it goes
}

}  // namespace kirogateway
