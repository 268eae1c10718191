#include "SubscriberIndex.hpp"

#include <algorithm>
#include <utility>

#include "checked/Require.hpp"

namespace relay {

void SubscriberIndex::add(std::shared_ptr<const Subscriber> subscriber) {
    const ChannelPattern& pattern = subscriber->pattern;
    auto& subscribers = pattern.isWildcard() ? fWildcards : fExact[pattern.text()];
    KIROWEB_REQUIRE(subscribers.empty() || subscribers.back()->age < subscriber->age);
    subscribers.push_back(std::move(subscriber));
}

void SubscriberIndex::remove(const Subscriber& subscriber) {
    const auto isIt = [&](const auto& candidate) { return candidate.get() == &subscriber; };
    if (subscriber.pattern.isWildcard()) {
        std::erase_if(fWildcards, isIt);
        return;
    }
    const auto found = fExact.find(subscriber.pattern.text());
    if (found == fExact.end()) return;
    std::erase_if(found->second, isIt);
    if (found->second.empty()) fExact.erase(found);
}

std::shared_ptr<const Subscriber> SubscriberIndex::next(const std::string& channel,
                                                        std::uint64_t after,
                                                        std::uint64_t last) const {
    const std::shared_ptr<const Subscriber>* best = nullptr;
    const auto consider = [&](const std::shared_ptr<const Subscriber>& candidate) {
        if (candidate->service <= after || candidate->service > last) return;
        if (best != nullptr && std::pair((*best)->service, (*best)->age) <
                                   std::pair(candidate->service, candidate->age)) {
            return;
        }
        best = &candidate;
    };
    if (const auto found = fExact.find(channel); found != fExact.end()) {
        std::for_each(found->second.begin(), found->second.end(), consider);
    }
    for (const auto& subscriber : fWildcards) {
        if (subscriber->pattern.matches(channel)) consider(subscriber);
    }
    return best == nullptr ? nullptr : *best;
}

}  // namespace relay
