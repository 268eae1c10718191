#include "Model.hpp"

#include <algorithm>

#include "Peer.hpp"

namespace simulate {

using Part = Item::Part;
using State = kirogateway::View::State;

bool matches(std::string_view pattern, std::string_view channel) {
    if (!pattern.ends_with("/*")) return pattern == channel;
    return channel.starts_with(pattern.substr(0, pattern.size() - 1));
}

ViewModel::Hears ViewModel::hears(std::string_view channel) const {
    auto heard = Hears::kNo;
    for (const auto& [pattern, isCertain] : subscriptions) {
        if (!matches(pattern, channel)) continue;
        if (isCertain) return Hears::kYes;
        heard = Hears::kMaybe;
    }
    return heard;
}

void Model::fail(const std::string& what) {
    if (failure.empty()) failure = what;
}

std::size_t Model::laneOf(std::string_view channel) const {
    for (std::size_t i = 0; i < options.lanes.size(); ++i) {
        for (const auto& pattern : options.lanes[i]) {
            if (matches(pattern, channel)) return i + 1;
        }
    }
    return 0;
}

Item& Model::publish(std::string channel, std::string content, bool isBlock, bool isPlain) {
    Item& item = items.emplace_back();
    item = {items.size(), std::move(channel), 0, std::move(content), isBlock, isPlain, now, {}};
    item.lane = laneOf(item.channel);
    item.isVague = isTight;
    if (isBlock) open.push_back(&item);
    const bool canBeNamed = item.channel.find('\x1e') == std::string::npos;
    for (auto& view : views) {
        const auto heard = canBeNamed ? view.hears(item.channel) : ViewModel::Hears::kNo;
        if (view.where == Where::kOver || heard == ViewModel::Hears::kNo) continue;
        if (isBlock && !view.isThere()) continue;
        const auto there = view.view.lock();
        const bool hasFailed = there == nullptr || there->failure() != nullptr;
        const bool isMaybe = heard == ViewModel::Hears::kMaybe;
        if (isMaybe) item.isVague = true;
        if (hasFailed || (isBlock && item.content.size() > view.maxBlock)) {
            item.isRefused = item.isRefused || (isBlock && !isMaybe);
            continue;
        }
        if (isBlock) item.parts[&view] = isMaybe ? Part::kMaybe : Part::kPending;
        view.lanes[item.lane].push_back({&item, isMaybe});
    }
    return item;
}

/// Whether what stands first in a lane need not come: a block that the view has left, or is about
/// to leave, and which cannot be delivered any more.
bool Model::maySkip(ViewModel& view, const ViewModel::Expected& expected) {
    if (expected.isOptional) return true;
    Item& item = *expected.item;
    if (!item.isBlock) return false;
    const auto part = item.parts.find(&view);
    if (part == item.parts.end() || item.isDelivered)
        return item.completions > 0 && !item.isDelivered;
    if (part->second == Part::kPending && !item.isVague) return false;
    part->second = Part::kLeft;
    return true;
}

void Model::take(ViewModel& view, const Item& item) {
    auto& lane = view.lanes[item.lane];
    while (!lane.empty() && lane.front().item != &item && maySkip(view, lane.front())) {
        lane.pop_front();
    }
    if (lane.empty() || lane.front().item != &item) {
        return fail("page of view " + std::to_string(view.index) + " gets message " +
                    std::to_string(item.id) + " where " +
                    (lane.empty() ? "none" : std::to_string(lane.front().item->id)) + " is due");
    }
    lane.pop_front();
}

Item* Model::takeText(ViewModel& view, std::string_view channel, std::string_view content,
                      bool isPlain) {
    for (const auto& expected : view.lanes[laneOf(channel)]) {
        Item& item = *expected.item;
        if (!item.isBlock && item.channel == channel && item.content == content) {
            expect(item.isPlain == isPlain, "a text in the wrong encoding");
            take(view, item);
            return &item;
        }
        const bool isFirst = !expected.isOptional && !item.isBlock;
        if (isFirst) break;
    }
    fail("view " + std::to_string(view.index) + " gets a text on \"" + std::string(channel) +
         "\" that is not due: " + std::string(content.substr(0, 40)));
    return nullptr;
}

void Model::settle(ViewModel& view, Item& item, Part part) {
    const auto found = item.parts.find(&view);
    if (found == item.parts.end()) return;
    auto& was = found->second;
    if (was == Part::kPending || (was == Part::kMayLeave && part == Part::kLeft)) {
        was = part;
    } else if (was == Part::kMayLeave && part == Part::kHas) {
        was = Part::kMaybe;
    }
}

bool Model::mayHear(std::string_view name) const {
    for (const auto& allowed : options.maySubscribe) {
        if (name == allowed) return true;
        const bool isWithin = allowed.ends_with("/*") && matches(allowed, name);
        if (isWithin) return true;
    }
    return false;
}

void Model::blur(ViewModel& view) {
    view.isVague = true;
    for (auto* item : open) {
        const auto part = item->parts.find(&view);
        const bool isAnswered = part != item->parts.end() &&
                                (part->second == Part::kHas || part->second == Part::kLeft);
        if (isAnswered) part->second = Part::kMaybe;
    }
}

void Model::lookAtDrained(ViewModel& view) {
    for (auto& lane : view.lanes) {
        while (!lane.empty() && maySkip(view, lane.front())) lane.pop_front();
        if (lane.empty()) continue;
        fail("message " + std::to_string(lane.front().item->id) + " never came to view " +
             std::to_string(view.index));
    }
}

// --- Coming and going --------------------------------------------------------------------------

ViewModel* Model::viewNamed(std::string_view name) {
    const auto found = std::ranges::find(views, name, &ViewModel::name);
    return name.empty() || found == views.end() ? nullptr : &*found;
}

bool Model::canReturn(const ViewModel& view, std::uint64_t last) const {
    const auto there = view.view.lock();
    return view.where != Where::kOver && view.mayReturn && there != nullptr &&
           there->failure() == nullptr && last <= view.written && last >= view.acknowledged;
}

void Model::resume(ViewModel& view, std::uint64_t last, const std::vector<std::uint64_t>& refused) {
    for (auto* item : open) {
        for (const auto& [number, at] : view.numbered) {
            if (at != item || number > last) continue;
            const bool isRefused = std::ranges::find(refused, number) != refused.end();
            settle(view, *item, isRefused ? Part::kLeft : Part::kHas);
        }
    }
    view.acknowledged = std::max(view.acknowledged, last);
}

void Model::lose(ViewModel& view) {
    view.where = Where::kLost;
    view.lostAt = now;
    view.peer = nullptr;
}

void Model::end(ViewModel& view) {
    view.where = Where::kOver;
    view.peer = nullptr;
    for (auto* item : open) settle(view, *item, Part::kLeft);
    for (auto& lane : view.lanes) lane.clear();
}

// --- Time --------------------------------------------------------------------------------------

void Model::beforeTick() {
    const auto& limits = options.limits;
    for (auto& view : views) {
        if (view.where != Where::kConnected) continue;
        auto& peer = *view.peer;
        if (peer.isHeld) view.heardAt = now;
        // Of who takes a long frame, behind which no ping goes out, nothing has to be heard.
        if (view.takenWithin != 0 && peer.written != view.takenWithin) view.heardAt = now;
        view.takenWithin = peer.isWithinFrame() ? peer.written : 0;
        if (view.isPerhapsWithin) view.perhapsHeardAt = now;
        peer.wasWithinFrame = peer.isWithinFrame();
    }
    for (auto* item : open) {
        for (auto& [view, part] : item->parts) {
            const bool isAway = view->where == Where::kLost && now - view->lostAt > limits.gone;
            const bool isLate = now - item->at > limits.block;
            if (isAway || (isLate && view->where == Where::kLost)) {
                settle(*view, *item, Part::kLeft);
            } else if (isLate && part == Part::kPending) {
                part = Part::kMayLeave;
            }
        }
    }
}

void Model::afterTick() {
    const auto& limits = options.limits;
    std::size_t away = 0;
    for (auto& view : views) {
        const auto lost = now - view.lostAt;
        if (view.where == Where::kConnected) {
            const auto heardAt = std::max(view.heardAt, view.perhapsHeardAt);
            expect(now - heardAt <= 3 * limits.ping, "a silent page is still connected");
            view.isPerhapsWithin = view.takenWithin == 0 && view.peer->wasWithinFrame;
        } else if (view.where != Where::kOver) {
            ++away;
            expect(lost <= limits.comeback, "a lost view is kept for too long");
            expect((lost > limits.gone) == (view.where == Where::kGone), "gone at the wrong time");
        }
    }
    expect(away <= limits.lostViews, "more lost views than there may be");
}

// --- Comparing ---------------------------------------------------------------------------------

void Model::look(bool isTick) {
    bool isAnyThere = false;
    for (auto& view : views) {
        if (view.where == Where::kOver) continue;
        const auto there = view.view.lock();
        const bool isAlive = there != nullptr && there->state() != State::kOver;
        if (isAlive && there->failure() != nullptr) view.hasFailed = true;
        expect(!view.hasFailed || isTight, "a view failed where there is room for all");
        lookAt(view, there == nullptr ? State::kOver : there->state(), isTick);
        isAnyThere = isAnyThere || view.isThere();
    }
    wasAnyThere = wasAnyThere || isAnyThere;
    const bool isGone = wasAnyThere && !isAnyThere;
    if (isGone && !isLastGone) ++timesGone;
    isLastGone = isGone;
    for (auto* item : open) lookAtBlock(*item);
    std::erase_if(open, [](const Item* item) { return item->completions > 0; });
}

std::size_t Model::endingBytes() const {
    std::size_t bytes = 0;
    for (const auto* item : open) {
        const bool isEnding = std::ranges::any_of(
            item->parts, [](const auto& entry) { return entry.first->hasFailed; });
        if (isEnding) bytes += item->content.size();
    }
    return bytes;
}

void Model::lookAt(ViewModel& view, State state, bool isTick) {
    const auto name = "view " + std::to_string(view.index);
    if (state == State::kConnected) {
        if (view.where != Where::kConnected) fail(name + " has a connection that it cannot have");
        if (view.peer != nullptr && view.peer->isEnded)
            fail(name + " keeps a connection that ended");
    } else if (state == State::kOver) {
        excuseEnd(view, isTick);
        end(view);
    } else if (view.where == Where::kConnected) {
        const auto* peer = view.peer;
        if (!peer->isEnded) fail(name + " lost a connection that is there");
        const bool isSilent = now - view.heardAt > 3 * options.limits.ping;
        if (peer->closeCode == 4004 && !isSilent) fail(name + " was closed as silent and is not");
        if (!view.mayReturn || peer->wasClosed) fail(name + " is kept though it cannot return");
        lose(view);
    }
    if (state == State::kGone && view.where == Where::kLost) {
        if (!isTick || now - view.lostAt <= options.limits.gone) fail(name + " is gone too early");
        view.where = Where::kGone;
        view.goneAt = now;
    }
}

/// A view ends for a reason that protocol.md gives.
void Model::excuseEnd(ViewModel& view, bool isTick) {
    const auto name = "view " + std::to_string(view.index);
    if (isShut || view.hasFailed) return;
    if (view.where == Where::kConnected) {
        const auto& peer = *view.peer;
        if (!peer.isEnded) return fail(name + " ended beside its connection");
        const bool isSilent = now - view.heardAt > 3 * options.limits.ping;
        if (peer.closeCode == 4004 && !isSilent) fail(name + " was closed as silent and is not");
        if (peer.closeCode == 4003) return excuseSlow(view);
        if (peer.wasClosed || !view.mayReturn || peer.hasLied || peer.isCut) return;
        view.lostAt = now;
    }
    if (view.isBadReturn || (isTick && now - view.lostAt > options.limits.comeback)) return;
    // It had to make way for those that were lost later.
    std::size_t away = 0;
    for (const auto& other : views) {
        const bool isAway = other.where != Where::kConnected || other.peer->isEnded;
        if (other.where == Where::kOver || !isAway) continue;
        ++away;
        const auto there = other.view.lock();
        const bool stays = there != nullptr && there->state() != State::kOver && !other.hasFailed;
        const auto lostAt = other.where == Where::kConnected ? now : other.lostAt;
        if (stays && lostAt < view.lostAt && !isTight) fail(name + " ended before its turn");
    }
    if (away <= options.limits.lostViews && !isTight) fail(name + " ended without a reason");
}

/// "Too slow" is only what protocol.md calls so.
void Model::excuseSlow(ViewModel& view) {
    const auto& peer = *view.peer;
    const std::string_view reason = peer.closeReason;
    std::size_t most =
        2 * options.limits.batchSize;  // that can be held for it, room for more included
    const auto add = [&most](const Item* item) {
        if (item != nullptr) most += 2 * item->content.size() + item->channel.size() + 500;
    };
    for (const auto& lane : view.lanes) {
        for (const auto& expected : lane) add(expected.item);
    }
    for (const auto& [number, item] : view.numbered) {
        // After a return all behind "last" comes again, even what is acknowledged before it does.
        if (number > std::min(view.acknowledged, peer.upTo())) add(item);
    }
    for (const auto* item : open) add(item->parts.contains(&view) ? item : nullptr);
    const auto controls = 400 * peer.expectedControls.size();
    const bool tookNothing = reason.starts_with("too slow: it took nothing");
    if (tookNothing && now - peer.tookAt > options.limits.queue) return;
    const bool isTooMuch = reason.starts_with("too slow: more ");
    if (isTooMuch && most + controls > options.limits.queueSize) return;
    if (!isTight)
        fail("view " + std::to_string(view.index) + " is no slow page: " + peer.closeReason);
}

void Model::lookAtBlock(Item& item) {
    const auto name = "block " + std::to_string(item.id);
    const auto is = [](Part part) {
        return [part](const auto& entry) { return entry.second == part; };
    };
    const auto& parts = item.parts;
    const bool isSettled = std::ranges::all_of(parts, [](const auto& entry) {
        return entry.second == Part::kHas || entry.second == Part::kLeft;
    });
    if (item.completions == 0) {
        if (isSettled) fail(name + " is not completed, and nobody is waited for");
        return;
    }
    if (item.completions > 1) fail(name + " is completed twice");
    const bool hasEach = std::ranges::all_of(parts, [](const auto& entry) {
        return entry.second == Part::kHas || entry.second == Part::kMaybe;
    });
    if (item.isDelivered) {
        if (item.isRefused || parts.empty() || !hasEach)
            fail(name + " counts as delivered and is not");
    } else if (!item.isVague) {
        if (std::ranges::any_of(parts, is(Part::kPending))) fail(name + " is given back too early");
        const bool isWhole = !parts.empty() && std::ranges::all_of(parts, is(Part::kHas));
        if (isWhole && !item.isRefused) fail(name + " is given back and was delivered");
    }
}

}  // namespace simulate
