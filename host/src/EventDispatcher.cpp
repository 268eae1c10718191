#include "kiroutils/EventDispatcher.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "annotated/Mutex.hpp"
#include "checked/Require.hpp"
#include "text/ChannelPattern.hpp"

namespace kiroutils {

EventData::~EventData() = default;

/// One registration. A send's snapshot may keep it beyond its listener.
struct EventDispatcher::Node {
    Node(const std::string& name, Callback function)
        : pattern(name), callback(std::move(function)) {}

    void call(const std::string& name, const EventData& data) const {
        if (active.load(std::memory_order_acquire)) callback(name, data);
    }

    const ChannelPattern pattern;
    const Callback callback;
    /// Position in the order of registration; set before the node is shared.
    std::uint64_t number = 0;
    std::atomic<bool> active = true;
};

/// The registrations. Lists are never changed, only replaced: a send works on the lists that it
/// found, for the price of a reference each. A list that is replaced is let go after the lock:
/// what its callbacks captured may call into the dispatcher when it is destroyed.
struct EventDispatcher::State {
    using List = std::vector<std::shared_ptr<const Node>>;
    using Snapshot = std::shared_ptr<const List>;

    void add(const std::shared_ptr<Node>& node);
    /// REQUIRES: the node is not active any more.
    void remove(const Node& node) noexcept;
    [[nodiscard]] std::size_t count(const std::string& name) const;
    void find(const std::string& name, Snapshot& exact, Snapshot& wildcards) const;

  private:
    static Snapshot activeOf(const Snapshot& list, const std::shared_ptr<const Node>& added);

    mutable annotated::Mutex fMutex;
    std::uint64_t fNextNumber GUARDED_BY(fMutex) = 0;
    /// By name; no list is null or empty.
    std::unordered_map<std::string, Snapshot> fExact GUARDED_BY(fMutex);
    /// Null when there are none, which spares a send the reference.
    Snapshot fWildcards GUARDED_BY(fMutex);
};

/// The nodes of `list` that are still active, and `added` behind them; null when there are none.
EventDispatcher::State::Snapshot EventDispatcher::State::activeOf(
    const Snapshot& list, const std::shared_ptr<const Node>& added) {
    const auto isActive = [](const auto& node) { return node->active.load(); };
    const auto numActive =
        list != nullptr ? std::count_if(list->begin(), list->end(), isActive) : 0;
    if (numActive == 0 && added == nullptr) return nullptr;
    auto result = std::make_shared<List>();
    result->reserve(static_cast<std::size_t>(numActive) + 1);
    if (numActive > 0)
        std::copy_if(list->begin(), list->end(), std::back_inserter(*result), isActive);
    if (added != nullptr) result->push_back(added);
    return result->empty() ? nullptr : result;
}

void EventDispatcher::State::add(const std::shared_ptr<Node>& node) {
    Snapshot replaced;
    const annotated::Lock lock(fMutex);
    node->number = fNextNumber++;
    if (node->pattern.isWildcard()) {
        replaced = std::exchange(fWildcards, activeOf(fWildcards, node));
        return;
    }
    const auto found = fExact.find(node->pattern.text());
    if (found != fExact.end()) {
        replaced = std::exchange(found->second, activeOf(found->second, node));
    } else {
        fExact.emplace(node->pattern.text(), activeOf(nullptr, node));
    }
}

void EventDispatcher::State::remove(const Node& node) noexcept try {
    KIROWEB_REQUIRE(!node.active.load());
    Snapshot replaced;
    const annotated::Lock lock(fMutex);
    if (node.pattern.isWildcard()) {
        replaced = std::exchange(fWildcards, activeOf(fWildcards, nullptr));
        return;
    }
    const auto found = fExact.find(node.pattern.text());
    if (found == fExact.end()) return;
    replaced = std::exchange(found->second, activeOf(found->second, nullptr));
    if (found->second == nullptr) fExact.erase(found);
} catch (const std::bad_alloc&) {
    // The node stays listed, without being called or counted, until the list is next replaced.
}

std::size_t EventDispatcher::State::count(const std::string& name) const {
    const annotated::Lock lock(fMutex);
    const auto found = fExact.find(name);
    const Snapshot& list = found != fExact.end() ? found->second : fWildcards;
    if (list == nullptr) return 0;
    return static_cast<std::size_t>(std::count_if(
        list->begin(), list->end(),
        [&name](const auto& node) { return node->active.load() && node->pattern.text() == name; }));
}

void EventDispatcher::State::find(const std::string& name, Snapshot& exact,
                                  Snapshot& wildcards) const {
    const annotated::Lock lock(fMutex);
    const auto found = fExact.find(name);
    if (found != fExact.end()) exact = found->second;
    if (fWildcards != nullptr) wildcards = fWildcards;
}

EventDispatcher::Listener::Listener() noexcept = default;

EventDispatcher::Listener::Listener(std::weak_ptr<State> state, std::shared_ptr<Node> node) noexcept
    : fState(std::move(state)), fNode(std::move(node)) {}

EventDispatcher::Listener::Listener(Listener&& other) noexcept = default;

EventDispatcher::Listener& EventDispatcher::Listener::operator=(Listener&& other) noexcept {
    // What this listener held goes with `old`, once the new registration is in place: a callback's
    // captures may look at this listener when they are destroyed.
    Listener old(std::move(other));
    fState.swap(old.fState);
    fNode.swap(old.fNode);
    return *this;
}

EventDispatcher::Listener::~Listener() { detach(); }

void EventDispatcher::Listener::detach() noexcept {
    if (fNode == nullptr) return;
    const auto node = std::move(fNode);
    node->active.store(false, std::memory_order_release);
    if (const auto state = fState.lock()) state->remove(*node);
}

EventDispatcher::EventDispatcher() : fState(std::make_shared<State>()) {}

EventDispatcher::~EventDispatcher() = default;

std::size_t EventDispatcher::numListeners(const std::string& name) const {
    return fState->count(name);
}

EventDispatcher::Listener EventDispatcher::createListener(const std::string& name,
                                                          Callback callback) {
    auto node = std::make_shared<Node>(name, std::move(callback));
    fState->add(node);
    return Listener(fState, std::move(node));
}

void EventDispatcher::send(const std::string& name, const EventData& data) const {
    State::Snapshot exact;
    State::Snapshot wildcards;
    fState->find(name, exact, wildcards);
    // A callback may destroy the dispatcher: from here on only the snapshot is used.
    const auto* next = exact != nullptr ? exact->data() : nullptr;
    const auto* const end = exact != nullptr ? next + exact->size() : nullptr;
    if (wildcards != nullptr) {
        for (const auto& wildcard : *wildcards) {
            if (!wildcard->pattern.matches(name)) continue;
            for (; next != end && (*next)->number < wildcard->number; ++next) {
                (*next)->call(name, data);
            }
            wildcard->call(name, data);
        }
    }
    for (; next != end; ++next) (*next)->call(name, data);
}

}  // namespace kiroutils
