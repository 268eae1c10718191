#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

namespace kirogateway {

/// A number of bytes that may be held at a time. Any thread; no lock.
class Budget {
  public:
    explicit Budget(std::size_t limit) noexcept : fLimit(limit) {}
    Budget(const Budget&) = delete;
    Budget& operator=(const Budget&) = delete;
    ~Budget() = default;

    /// Returns whether there was room; the bytes are taken then.
    [[nodiscard]] bool take(std::size_t bytes) noexcept {
        auto used = fUsed.load(std::memory_order_relaxed);
        do {
            if (bytes > fLimit || used > fLimit - bytes) return false;
        } while (!fUsed.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
        return true;
    }
    /// Takes bytes that are held already, room or not.
    void add(std::size_t bytes) noexcept { fUsed.fetch_add(bytes, std::memory_order_relaxed); }
    void give(std::size_t bytes) noexcept { fUsed.fetch_sub(bytes, std::memory_order_relaxed); }

    /// Bytes that will be given soon, since their holder has to end.
    void addEnding(std::size_t bytes) noexcept { fEnding += bytes; }
    void removeEnding(std::size_t bytes) noexcept { fEnding -= bytes; }

    /// Whether there is room, or soon will be.
    [[nodiscard]] bool hasRoomFor(std::size_t bytes) const noexcept {
        const auto now = used();
        const auto soon = now - std::min(now, fEnding.load());
        return bytes <= fLimit && soon <= fLimit - bytes;
    }
    [[nodiscard]] bool isExceeded() const noexcept { return used() > fLimit; }
    [[nodiscard]] std::size_t used() const noexcept {
        return fUsed.load(std::memory_order_relaxed);
    }
    [[nodiscard]] std::size_t limit() const noexcept { return fLimit; }

  private:
    const std::size_t fLimit;
    std::atomic<std::size_t> fUsed{0};
    std::atomic<std::size_t> fEnding{0};
};

/// Bytes of a budget, given back at the end. Movable.
class Charge {
  public:
    Charge() noexcept = default;
    Charge(Charge&& other) noexcept
        : fBudget(std::move(other.fBudget)), fBytes(std::exchange(other.fBytes, 0)) {}
    Charge& operator=(Charge&& other) noexcept {
        std::swap(fBudget, other.fBudget);
        std::swap(fBytes, other.fBytes);
        return *this;
    }
    Charge(const Charge&) = delete;
    Charge& operator=(const Charge&) = delete;
    ~Charge() {
        if (fBudget != nullptr) fBudget->give(fBytes);
    }

    /// Returns whether there was room for so many bytes more, which this holds then.
    [[nodiscard]] bool grow(const std::shared_ptr<Budget>& budget, std::size_t bytes) noexcept {
        if (!budget->take(bytes)) return false;
        fBudget = budget;
        fBytes += bytes;
        return true;
    }
    /// Holds so many bytes instead, room or not.
    void set(const std::shared_ptr<Budget>& budget, std::size_t bytes) noexcept {
        budget->add(bytes);
        if (fBudget != nullptr) fBudget->give(fBytes);
        fBudget = budget;
        fBytes = bytes;
    }
    [[nodiscard]] std::size_t bytes() const noexcept { return fBytes; }

  private:
    std::shared_ptr<Budget> fBudget;
    std::size_t fBytes = 0;
};

}  // namespace kirogateway
