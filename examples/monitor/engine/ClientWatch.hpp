#pragma once

#include <atomic>
#include <memory>

#include "kiroutils/EventDispatcher.hpp"

namespace kiro::web {
class ConnectionStatus;
class Subscriber;
}  // namespace kiro::web

namespace monitor::engine {

/// Notices when the client that has been drawn to is gone: a reconnection or a new view, at any
/// moment, also between two waits. Made on the signal thread.
class ClientWatch {
  public:
    ClientWatch();
    ~ClientWatch();
    ClientWatch(const ClientWatch&) = delete;
    ClientWatch& operator=(const ClientWatch&) = delete;

    struct Events {
        bool reconnection = false;
        bool newView = false;
        [[nodiscard]] bool any() const { return reconnection || newView; }
    };

    /// What has happened since the last `take`.
    [[nodiscard]] Events peek() const;
    Events take();

    /// For the waits. Made before the waits' own subscriptions, this watch sees an event before
    /// the wait does that the event ends.
    [[nodiscard]] const std::shared_ptr<kiro::web::ConnectionStatus>& status() const {
        return fStatus;
    }

  private:
    struct Markers {
        std::atomic<bool> reconnection = false;
        std::atomic<bool> newView = false;
    };

    /// Shared with the callbacks, which run on the message service's thread.
    std::shared_ptr<Markers> fMarkers = std::make_shared<Markers>();
    std::shared_ptr<kiro::web::ConnectionStatus> fStatus;
    std::unique_ptr<kiro::web::Subscriber> fReconnect;
    kiroutils::EventDispatcher::Listener fNewView;
};

}  // namespace monitor::engine
