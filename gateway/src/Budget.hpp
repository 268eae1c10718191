#pragma once

#include <cstddef>
#include <memory>
#include <utility>

#include "Account.hpp"

namespace kirogateway {

/// What its owner may hold of an account, with all others who share that. Any thread; only
/// `makeRoom` takes a lock.
class Budget {
  public:
    explicit Budget(std::size_t limit,
                    std::shared_ptr<Account> account = std::make_shared<Account>()) noexcept
        : fLimit(limit), fAccount(std::move(account)) {}
    Budget(const Budget&) = delete;
    Budget& operator=(const Budget&) = delete;
    ~Budget() = default;

    // See `Account`.
    [[nodiscard]] bool take(std::size_t bytes) noexcept { return fAccount->take(bytes, fLimit); }
    void add(std::size_t bytes) noexcept { fAccount->add(bytes); }
    void give(std::size_t bytes) noexcept { fAccount->give(bytes); }
    void addEnding(std::size_t bytes) noexcept { fAccount->addEnding(bytes); }
    void removeEnding(std::size_t bytes) noexcept { fAccount->removeEnding(bytes); }
    bool makeRoom(std::size_t bytes) noexcept { return fAccount->makeRoom(bytes, fLimit); }

    [[nodiscard]] bool isExceeded() const noexcept { return used() > fLimit; }
    [[nodiscard]] std::size_t used() const noexcept { return fAccount->used(); }
    [[nodiscard]] std::size_t limit() const noexcept { return fLimit; }
    [[nodiscard]] const std::shared_ptr<Account>& account() const noexcept { return fAccount; }

  private:
    const std::size_t fLimit;
    const std::shared_ptr<Account> fAccount;
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
