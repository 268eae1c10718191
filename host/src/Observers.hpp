#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"

namespace kirohost::detail {

/// The observers of one kind of event. They are called in the order of their registration, with
/// no lock held. Any thread. Lives as long as the process, since its scopes refer to it.
template <typename Event>
class Observers {
  public:
    using Observer = std::function<void(const Event&)>;

    /// While the scope lives, `observer` is called. After its end no new call begins; one already
    /// begun on another thread may still run.
    [[nodiscard]] Scope add(Observer observer) {
        auto entry = std::make_shared<Entry>(std::move(observer));
        change([&entry](List& list) { list.push_back(entry); });
        return Scope([this, entry] {
            entry->active = false;
            try {
                change([&entry](List& list) { std::erase(list, entry); });
            } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch)
                // It stays listed, and is not called any more.
            }
        });
    }

    /// Whether nobody would be called; one load, so that an event need not be built in vain.
    [[nodiscard]] bool empty() const noexcept { return fCount == 0; }

    void notify(const Event& event) const {
        const auto entries = snapshot();
        for (const auto& entry : *entries) {
            if (entry->active) entry->observer(event);
        }
    }

  private:
    struct Entry {
        explicit Entry(Observer function) : observer(std::move(function)) {}
        const Observer observer;
        std::atomic<bool> active = true;
    };
    using List = std::vector<std::shared_ptr<Entry>>;

    template <typename Edit>
    void change(const Edit& edit) {
        annotated::Lock lock(fMutex);
        auto list = std::make_shared<List>(*fList);
        edit(*list);
        fCount = list->size();
        fList = std::move(list);
    }

    [[nodiscard]] std::shared_ptr<const List> snapshot() const {
        annotated::Lock lock(fMutex);
        return fList;
    }

    std::atomic<std::size_t> fCount = 0;
    mutable annotated::Mutex fMutex;
    std::shared_ptr<const List> fList GUARDED_BY(fMutex) = std::make_shared<const List>();
};

}  // namespace kirohost::detail
