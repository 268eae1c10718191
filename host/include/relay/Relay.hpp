#pragma once

#include <memory>
#include <string>

#include "kirohost/Export.hpp"

namespace relay {

namespace message_service {
struct JsonMessage;
}

/// Carries the published messages to somebody outside the process.
///
/// `messagePublished` is called for every message that the process publishes, in publish order,
/// on the publishing thread and under the relay's publish lock: it must not block, throw, or
/// call back into the relay or a message service. The message is valid during the call only.
class KIROHOST_EXPORT Transport {
  public:
    virtual ~Transport();
    virtual void messagePublished(const message_service::JsonMessage& message) = 0;
};

/// An attached transport's way into the process. Destroying it detaches the transport: once the
/// destructor has returned, `messagePublished` is not running and is not called again.
class KIROHOST_EXPORT TransportLink {
  public:
    virtual ~TransportLink();

    /// Queues a message that came from outside for the process's subscribers. It is handed to
    /// the other transports too, not back to this one. Any thread but one inside
    /// `messagePublished`.
    virtual void deliver(const message_service::JsonMessage& message) = 0;
};

/// The process's connection to the client side.
class KIROHOST_EXPORT Relay {
  public:
    virtual ~Relay();

    /// Attaches `transport`, which the link keeps alive. Any thread.
    [[nodiscard]] virtual std::unique_ptr<TransportLink> attach(
        std::shared_ptr<Transport> transport) = 0;
};

/// The one connection, made on first use and kept until the process ends. Any thread. It is
/// asked for before the first message service is created.
KIROHOST_EXPORT Relay& getRelay();

}  // namespace relay
