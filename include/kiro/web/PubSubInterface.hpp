#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiro/web/Subscriber.hpp"

namespace kiroutils {
class EventDispatcher;
}

namespace kiro::web {

class PayloadInterface;

/// An endpoint that publishes payloads on named channels and delivers incoming messages to the
/// local listeners. Shared through `std::shared_ptr`.
///
/// It takes no lock of its own: subscribing, unsubscribing and delivery rely on its dispatcher.
class KIROWEB_EXPORT PubSubInterface {
  public:
    /// Called for each message with the channel on which it arrived (never the wildcard that
    /// matched it) and the payload, which is valid during the call only. It runs on the thread
    /// that delivers: the publisher's for `test::FakePubSub`, the message service's for
    /// `RelayPubSub`. An exception goes to whoever delivers.
    using CallbackType =
        std::function<void(const std::string& channel, const PayloadInterface& payload)>;

    PubSubInterface();
    virtual ~PubSubInterface();
    PubSubInterface(const PubSubInterface&) = delete;
    PubSubInterface& operator=(const PubSubInterface&) = delete;

    /// Hands an incoming message to the local listeners of `channel`, on this thread.
    virtual void handlePublishCallback(const std::string& channel, const PayloadInterface& payload);

    /// Puts `payload` on `channel`.
    void publish(const std::string& channel, PayloadInterface& payload) {
        doPublish(channel, payload);
    }

  protected:
    virtual void doPublish(const std::string& channel, PayloadInterface& payload) = 0;

    /// Starts receiving `channel` from the transport, which calls `callback` for each message.
    /// Destroying the result stops it; an empty result means that there is nothing to stop.
    virtual std::unique_ptr<InternalSubscriberData> doSubscribe(const std::string& channel,
                                                                CallbackType callback) = 0;

  private:
    friend KIROWEB_EXPORT std::unique_ptr<Subscriber> subscribe(
        std::shared_ptr<PubSubInterface> pubsub, const std::string& channel, CallbackType callback);

    std::unique_ptr<kiroutils::EventDispatcher> fDispatcher;
};

/// Attaches `callback` to `channel` until the returned handle is destroyed.
///
/// The first subscriber of a channel also subscribes at the transport, and owns that: when it
/// goes, the transport's messages stop for the later subscribers of the channel too, until the
/// last of them has gone and a new one comes. So the transport's subscription has one owner, and
/// its end is not put off by a subscriber that somebody forgot.
///
/// The endpoint is not kept alive; the handle may outlive it. What `doSubscribe` throws leaves
/// nothing registered. An empty callback throws `std::bad_function_call` at delivery, event data
/// that is no payload `std::bad_cast`. REQUIRES: `pubsub` is not empty.
[[nodiscard]] KIROWEB_EXPORT std::unique_ptr<Subscriber> subscribe(
    std::shared_ptr<PubSubInterface> pubsub, const std::string& channel,
    PubSubInterface::CallbackType callback);

}  // namespace kiro::web
