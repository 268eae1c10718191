#include "BlockWaits.hpp"

#include <utility>

namespace kirolink {

void BlockWaits::add(std::uint64_t number, std::unique_ptr<BlockWait>&& wait,
                     std::vector<std::uint64_t> readers, TimePoint now) {
    const auto at = fWaits.try_emplace(number).first;
    at->second.wait = std::move(wait);
    at->second.readers = std::move(readers);
    at->second.since = now;
    settle(at);
}

void BlockWaits::answered(std::uint64_t reader, std::uint64_t number, BlockOutcome outcome) {
    const auto at = fWaits.find(number);
    if (at == fWaits.end()) return;
    auto& entry = at->second;
    // Whoever was not there at its number has nothing to say.
    if (std::erase(entry.readers, reader) == 0) return;
    entry.isDelivered = entry.isDelivered || outcome == BlockOutcome::kDelivered;
    entry.isRefused = entry.isRefused || outcome == BlockOutcome::kRefused;
    settle(at);
}

void BlockWaits::gone(std::uint64_t reader, bool hadPages) {
    for (auto at = fWaits.begin(); at != fWaits.end();) {
        auto& entry = at->second;
        if (std::erase(entry.readers, reader) > 0) entry.isGone = entry.isGone || hadPages;
        at = settle(at);
    }
}

void BlockWaits::expire(TimePoint now) {
    // They are in the order in which they came.
    for (auto at = fWaits.begin(); at != fWaits.end() && now - at->second.since > kLongest;) {
        at->second.readers.clear();
        at->second.isGone = true;
        at = settle(at);
    }
}

void BlockWaits::clear() {
    for (auto at = fWaits.begin(); at != fWaits.end();) {
        at->second.readers.clear();
        at->second.isGone = true;
        at = settle(at);
    }
}

BlockWaits::Waits::iterator BlockWaits::settle(Waits::iterator at) {
    if (!at->second.readers.empty()) return std::next(at);
    // Out of the list first: engine code is about to run.
    auto entry = std::move(at->second);
    const auto next = fWaits.erase(at);
    end(entry);
    return next;
}

void BlockWaits::end(Entry& entry) const {
    auto how = BlockEnd::kNobody;
    if (entry.isDelivered) how = BlockEnd::kDelivered;
    if (entry.isGone) how = BlockEnd::kGone;
    if (entry.isRefused) how = BlockEnd::kRefused;
    fOnEnd(how);
    entry.wait->finished(how == BlockEnd::kDelivered);
}

}  // namespace kirolink
