#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "Budget.hpp"
#include "Wakeup.hpp"

namespace kirogateway {

class Connection;

/// What one page has published and nobody in the process has had yet. The page is not read from
/// while it is too much: neither in bytes nor in messages, since each of those makes others wait.
class Backlog final : public Wakeup::Target, public std::enable_shared_from_this<Backlog> {
  public:
    Backlog(std::size_t limit, std::shared_ptr<Wakeup> wakeup) noexcept
        : fLimit(limit), fWakeup(std::move(wakeup)) {}

    /// A text, and the ticket that counts it until the last one lets go of it.
    struct Entry {
        std::shared_ptr<const std::string> text;
        std::shared_ptr<const void> ticket;
    };
    /// Counts `text`. Throws std::bad_alloc. The gateway's thread.
    [[nodiscard]] Entry add(std::string text, const std::shared_ptr<Budget>& memory);

    [[nodiscard]] bool isFull() const noexcept {
        return fBytes > fLimit || fMessages >= kMaxMessages;
    }
    /// `reader.readOn` is called when there is room again; null: it is not. The gateway's thread.
    void setReader(Connection* reader) noexcept;

    void serve(unsigned what) noexcept override;

  private:
    struct Received;
    static constexpr std::size_t kMaxMessages = 64;

    void release(std::size_t bytes) noexcept;

    const std::size_t fLimit;
    const std::shared_ptr<Wakeup> fWakeup;
    std::atomic<std::size_t> fBytes{0};
    std::atomic<std::size_t> fMessages{0};
    std::atomic<bool> fIsAwaited{false};
    Connection* fReader = nullptr;  ///< the gateway's thread's
};

}  // namespace kirogateway
