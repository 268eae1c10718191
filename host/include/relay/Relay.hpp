#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "kirohost/Export.hpp"

namespace relay {

/// A message that is being published, as transports see it: a view, valid during the call that
/// hands it over, and a way to keep the text without a copy of one's own. One thread.
class Publication {
  public:
    using Text = std::shared_ptr<const std::string>;

    /// `text` and `channel` outlive the publication. `shared` holds the same text, or is empty.
    Publication(const std::string& channel, std::string_view text, Text shared = nullptr) noexcept
        : fChannel(channel), fText(text), fShared(std::move(shared)) {}
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;
    ~Publication() = default;

    /// The channel on which it was published, never a wildcard that matched it.
    [[nodiscard]] const std::string& channel() const noexcept { return fChannel; }
    [[nodiscard]] std::string_view text() const noexcept { return fText; }

    /// The text as an immutable copy, made when somebody first asks for it and shared by all who
    /// do. Throws std::bad_alloc.
    [[nodiscard]] const Text& shared() const {
        if (fShared == nullptr) fShared = std::make_shared<const std::string>(fText);
        return fShared;
    }

  private:
    const std::string& fChannel;
    const std::string_view fText;
    mutable Text fShared;
};

/// Carries the published messages to somebody outside the process.
///
/// `messagePublished` is called for every message that the process publishes, in publish order,
/// on the publishing thread and under the relay's publish lock: it must not block, throw, or
/// call back into the relay or a message service.
class KIROHOST_EXPORT Transport {
  public:
    virtual ~Transport();
    virtual void messagePublished(const Publication& message) = 0;
};

/// An attached transport's way into the process. Destroying it detaches the transport: once the
/// destructor has returned, `messagePublished` is not running and is not called again.
class KIROHOST_EXPORT TransportLink {
  public:
    virtual ~TransportLink();

    /// Queues a message that came from outside for the process's subscribers. It is handed to
    /// the other transports too, not back to this one. `ticket`, which may be empty, is let go when
    /// the last subscriber has had the message, or when it turns out that there is none: so that
    /// whoever sends can tell how much of it still waits. Any thread but one inside
    /// `messagePublished`. REQUIRES: `text` is there (its string may be empty). Throws
    /// std::bad_alloc; nothing was queued then.
    virtual void deliver(const std::string& channel, Publication::Text text,
                         std::shared_ptr<const void> ticket) = 0;
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
