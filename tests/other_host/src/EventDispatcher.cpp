#include "kiroutils/EventDispatcher.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "other/Controls.hpp"

namespace kiroutils {

EventData::~EventData() = default;

struct EventDispatcher::Node {
    std::string name;
    Callback callback;
    std::atomic<bool> isLive = true;
};

struct EventDispatcher::State {
    std::mutex mutex;
    std::vector<std::shared_ptr<Node>> nodes;
};

using Listener = EventDispatcher::Listener;

Listener::Listener() noexcept = default;
Listener::Listener(Listener&&) noexcept = default;
Listener::Listener(std::weak_ptr<State> state, std::shared_ptr<Node> node) noexcept
    : fState(std::move(state)), fNode(std::move(node)) {}
Listener& Listener::operator=(Listener&& other) noexcept {
    const Listener old(std::move(*this));
    fState = std::move(other.fState);
    fNode = std::move(other.fNode);
    return *this;
}
Listener::~Listener() { detach(); }

void Listener::detach() noexcept {
    const auto state = fState.lock();
    if (fNode == nullptr || state == nullptr) return;
    fNode->isLive = false;
    const std::lock_guard lock(state->mutex);
    std::erase(state->nodes, fNode);
}

EventDispatcher::EventDispatcher() : fState(std::make_shared<State>()) {}
EventDispatcher::~EventDispatcher() = default;

std::size_t EventDispatcher::numListeners(const std::string& name) const {
    const std::lock_guard lock(fState->mutex);
    return static_cast<std::size_t>(
        std::count_if(fState->nodes.begin(), fState->nodes.end(),
                      [&](const auto& node) { return node->name == name; }));
}

Listener EventDispatcher::createListener(const std::string& name, Callback callback) {
    const auto node = std::make_shared<Node>(name, std::move(callback));
    const std::lock_guard lock(fState->mutex);
    fState->nodes.push_back(node);
    return Listener(fState, node);
}

void EventDispatcher::send(const std::string& name, const EventData& data) const {
    const auto state = fState;  // a callback may destroy the dispatcher
    std::unique_lock lock(state->mutex);
    auto called = state->nodes;
    if (!other::hasFault("dispatcher-calls-under-its-lock")) lock.unlock();
    std::reverse(called.begin(), called.end());  // any order will do
    for (const auto& node : called) {
        if (node->isLive && other::matches(node->name, name)) node->callback(name, data);
    }
}

}  // namespace kiroutils
