#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace support {

/// Keeps what any thread hands it, in order.
template <typename Item>
class Collector {
  public:
    void add(Item item) {
        const std::lock_guard lock(fMutex);
        fItems.push_back(std::move(item));
        fChanged.notify_all();
    }

    [[nodiscard]] std::vector<Item> all() const {
        const std::lock_guard lock(fMutex);
        return fItems;
    }

    [[nodiscard]] std::size_t size() const { return all().size(); }

    /// Blocks until at least `count` items are there; ctest's time limit ends a wait in vain.
    void awaitSize(std::size_t count) const {
        std::unique_lock lock(fMutex);
        while (fItems.size() < count) fChanged.wait(lock);
    }

    /// The oldest item, which is awaited and taken out.
    Item take() {
        std::unique_lock lock(fMutex);
        while (fItems.empty()) fChanged.wait(lock);
        Item item = std::move(fItems.front());
        fItems.erase(fItems.begin());
        return item;
    }

    void clear() {
        const std::lock_guard lock(fMutex);
        fItems.clear();
    }

  private:
    mutable std::mutex fMutex;
    mutable std::condition_variable fChanged;
    std::vector<Item> fItems;
};

}  // namespace support
