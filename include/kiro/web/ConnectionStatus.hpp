#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiroutils/EventDispatcher.hpp"

namespace kiro::web {

class PayloadInterface;
class Subscriber;

/// Watches the new-view channel and the reconnect channel of one client.
class KIROWEB_EXPORT ConnectionStatus {
  public:
    using NewViewCallback = std::function<void()>;

    /// Subscribes to the new-view channel. Signal thread.
    ConnectionStatus(const std::string& reconnectChannel, const std::string& newViewChannel);
    ConnectionStatus(const ConnectionStatus&) = delete;
    ConnectionStatus& operator=(const ConnectionStatus&) = delete;
    ~ConnectionStatus();

    /// False until the client has announced its first view, true from then on. Any thread.
    [[nodiscard]] bool getStatus() const;

    /// Has `fcn` called for every further view: the first one is the initial view and is not
    /// reported. It runs on the message service's delivery thread with no lock held, while the
    /// handle lives. Any thread. An empty `fcn` ends the process.
    [[nodiscard]] kiroutils::EventDispatcher::Listener createNewViewListener(NewViewCallback fcn);

    /// Subscribes `callback` to the reconnect channel. Signal thread.
    [[nodiscard]] std::unique_ptr<Subscriber> createReconnectSubscriber(
        std::function<void(const std::string&, const PayloadInterface&)> callback);

  private:
    class KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
