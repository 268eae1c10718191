#include "kiroutils/EventDispatcher.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "other/Controls.hpp"
#include "other/Fault.hpp"

namespace kiroutils {

using other::hasFault;

EventData::~EventData() = default;

struct EventDispatcher::Entry {
    std::string name;
    Callback callback;
    std::atomic<bool> isLive = true;
};

/// Recursive, so that the fault of calling under the lock is one that only other threads meet.
struct EventDispatcher::Entries {
    std::recursive_mutex mutex;
    std::vector<std::shared_ptr<Entry>> all;
};

EventDispatcher::Listener& EventDispatcher::Listener::operator=(Listener&& other) noexcept {
    Listener old(std::move(*this));
    fEntries = std::move(other.fEntries);
    fEntry = std::move(other.fEntry);
    return *this;
}

EventDispatcher::Listener::~Listener() {
    if (fEntry == nullptr) return;
    if (!hasFault("dispatcher-calls-the-gone")) fEntry->isLive = false;
    if (const auto entries = fEntries.lock()) {
        const std::lock_guard lock(entries->mutex);
        std::erase(entries->all, fEntry);
    }
}

EventDispatcher::EventDispatcher() : fEntries(std::make_shared<Entries>()) {}

std::size_t EventDispatcher::numListeners(const std::string& name) const {
    const std::lock_guard lock(fEntries->mutex);
    return static_cast<std::size_t>(
        std::count_if(fEntries->all.begin(), fEntries->all.end(),
                      [&](auto& entry) { return entry->name == name; }));
}

EventDispatcher::Listener EventDispatcher::createListener(const std::string& name,
                                                          Callback callback) {
    Listener listener;
    listener.fEntry = std::make_shared<Entry>();
    listener.fEntry->name = name;
    listener.fEntry->callback = std::move(callback);
    listener.fEntries = fEntries;
    const std::lock_guard lock(fEntries->mutex);
    fEntries->all.push_back(listener.fEntry);
    return listener;
}

void EventDispatcher::send(const std::string& name, const EventData& data) const {
    const auto entries = fEntries;  // a callback may destroy the dispatcher
    std::unique_lock lock(entries->mutex);
    auto called = entries->all;
    if (!hasFault("dispatcher-calls-under-its-lock")) lock.unlock();
    std::reverse(called.begin(), called.end());  // any order will do
    for (const auto& entry : called) {
        const bool isMeant = hasFault("dispatcher-without-wildcards")
                                 ? entry->name == name
                                 : other::matches(entry->name, name);
        if (!isMeant || !entry->isLive) continue;
        try {
            entry->callback(name, data);
        } catch (...) {
            if (!hasFault("dispatcher-swallows-exceptions")) throw;
        }
    }
}

}  // namespace kiroutils
