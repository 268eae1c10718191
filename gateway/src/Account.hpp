#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "annotated/Mutex.hpp"

namespace kirogateway {

class ViewRegistry;
struct SharedText;

/// Bytes that are held together, whoever holds them, and the views that can be ended for them. How
/// many there may be is said by who wants more: gateways with different limits share one account.
/// Any thread; to count takes no lock.
class Account {
  public:
    Account() = default;
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;
    ~Account() = default;

    /// The one of all gateways in this process.
    [[nodiscard]] static std::shared_ptr<Account> ofProcess();

    /// Returns whether there was room; the bytes are taken then.
    [[nodiscard]] bool take(std::size_t bytes, std::size_t limit) noexcept {
        auto used = fUsed.load(std::memory_order_relaxed);
        do {
            if (bytes > limit || used > limit - bytes) return false;
        } while (!fUsed.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
        return true;
    }
    /// Takes bytes that are held already, room or not.
    void add(std::size_t bytes) noexcept { fUsed.fetch_add(bytes, std::memory_order_relaxed); }
    void give(std::size_t bytes) noexcept { fUsed.fetch_sub(bytes, std::memory_order_relaxed); }
    [[nodiscard]] std::size_t used() const noexcept {
        return fUsed.load(std::memory_order_relaxed);
    }

    /// Bytes that will be given soon, since their holder has to end.
    void addEnding(std::size_t bytes) noexcept { fEnding += bytes; }
    void removeEnding(std::size_t bytes) noexcept { fEnding -= bytes; }

    /// Whether there is room, or soon will be.
    [[nodiscard]] bool hasRoomFor(std::size_t bytes, std::size_t limit) const noexcept {
        const auto now = used();
        const auto soon = now - std::min(now, fEnding.load());
        return bytes <= limit && soon <= limit - bytes;
    }
    /// Ends views, those first for which most is held, whosever they are, until there is room for
    /// so many bytes, or will be as soon as their gateways' threads have given back their blocks.
    /// Returns whether that is so. REQUIRES: no lock of a registry or a view held.
    bool makeRoom(std::size_t bytes, std::size_t limit) noexcept;

    /// The text that was counted last: the next gateway may be handed the same one.
    [[nodiscard]] std::shared_ptr<const SharedText> lastText() const noexcept;
    void noteText(const std::shared_ptr<const SharedText>& text) noexcept;

    /// While one lives, views of a registry may be ended. The registry's other members are there
    /// before it, and after it.
    class Holder {
      public:
        /// Throws std::bad_alloc.
        Holder(std::shared_ptr<Account> account, const ViewRegistry& views);
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;
        ~Holder();

      private:
        const std::shared_ptr<Account> fAccount;
        const ViewRegistry& fViews;
    };

  private:
    std::atomic<std::size_t> fUsed{0};
    std::atomic<std::size_t> fEnding{0};
    /// Held while views are looked at and ended, so that two who need room do not end two for it.
    annotated::Mutex fMutex{annotated::Rank::kMemory};
    std::vector<const ViewRegistry*> fHolders GUARDED_BY(fMutex);
    mutable annotated::Mutex fTextMutex;
    std::weak_ptr<const SharedText> fLastText GUARDED_BY(fTextMutex);
};

}  // namespace kirogateway
