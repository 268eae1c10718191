#include "Backlog.hpp"

#include <utility>

#include "Connection.hpp"

namespace kirogateway {

/// Text and ticket in one piece of memory. It is let go on any thread, under any lock.
struct Backlog::Received {
    Received(std::string theText, std::shared_ptr<Backlog> theBacklog)
        : text(std::move(theText)), backlog(std::move(theBacklog)) {}
    Received(const Received&) = delete;
    Received& operator=(const Received&) = delete;
    ~Received() { backlog->release(text.size()); }

    const std::string text;
    const std::shared_ptr<Backlog> backlog;
    Charge charge;
};

Backlog::Entry Backlog::add(std::string text, const std::shared_ptr<Budget>& memory) {
    // Counted first: the ticket takes it off again, whatever happens.
    fBytes += text.size();
    ++fMessages;
    const auto size = text.size();
    std::shared_ptr<Received> received;
    try {
        received = std::make_shared<Received>(std::move(text), shared_from_this());
    } catch (...) {
        fBytes -= size;
        --fMessages;
        throw;
    }
    // It is here already: when there is no room for it, it is the page that has to wait.
    received->charge.set(memory, size);
    return {{received, &received->text}, received};
}

void Backlog::release(std::size_t bytes) noexcept {
    fBytes -= bytes;
    --fMessages;
    // At half of it, so that not every message wakes the gateway's thread.
    const bool hasRoom = fBytes <= fLimit / 2 && fMessages <= kMaxMessages / 2;
    if (!hasRoom || !fIsAwaited.exchange(false)) return;
    fWakeup->request(*this, 1, [this] { return weak_from_this().lock(); });
}

void Backlog::serve(unsigned /*what*/) noexcept {
    if (fReader != nullptr) std::exchange(fReader, nullptr)->readOn();
}

void Backlog::setReader(Connection* reader) noexcept {
    fReader = reader;
    fIsAwaited = reader != nullptr;
    // What was released in between did not see that somebody waits.
    if (reader != nullptr && !isFull() && fIsAwaited.exchange(false)) {
        fWakeup->request(*this, 1, [this] { return weak_from_this().lock(); });
    }
}

}  // namespace kirogateway
