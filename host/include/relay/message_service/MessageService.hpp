#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "kirohost/Export.hpp"
#include "relay/Future.hpp"

namespace relay::message_service {

/// A message as it is handed over: a view, valid during the call that hands it over.
struct JsonMessage {
    /// The channel on which the message was published, never a wildcard that matched it.
    const std::string& channel;
    /// The JSON text in UTF-8, not zero-terminated; null when there is no text.
    const char* json;
    /// Length of the text in bytes.
    std::size_t length;
};

/// Called on the service's delivery thread, one message at a time, with no lock held. It may
/// publish, subscribe and destroy subscriptions, its own included. What it throws is logged and
/// dropped. It must not wait for another delivery.
using Handler = std::function<void(const JsonMessage&)>;

/// What a publish answers. Nobody has to wait for it.
struct Published {};

/// One live subscription, which may outlive its service object. After its destructor has returned
/// no new call of its handler begins; one already begun on the delivery thread may still run, and
/// the destructor does not wait.
class KIROHOST_EXPORT Subscription {
  public:
    virtual ~Subscription();
};

/// Publishes and receives JSON text on named channels. All operations on any thread.
///
/// A channel name that ends in "/*" subscribes to every channel that begins with what stands
/// before the "*"; any other text, the empty one included, matches itself. A message is handed
/// to one service object once, through the oldest of its live subscriptions that match.
class KIROHOST_EXPORT MessageService {
  public:
    virtual ~MessageService();

    /// Queues a copy of the text for the subscribers of `channel` in this process and hands it to
    /// the attached transports. Never blocks because of a slow or absent client. Messages
    /// published by one thread arrive in their order. `message.channel` is `channel`.
    Future<Published> publish(const std::string& channel, const JsonMessage& message) {
        return doPublish(channel, message);
    }

    /// Registers `handler` for `channel`. Messages published after the future is complete are
    /// delivered to it.
    Future<std::shared_ptr<Subscription>> subscribe(const std::string& channel, Handler handler) {
        return doSubscribe(channel, std::move(handler));
    }

  protected:
    virtual Future<Published> doPublish(const std::string& channel, const JsonMessage& message) = 0;
    virtual Future<std::shared_ptr<Subscription>> doSubscribe(const std::string& channel,
                                                              Handler handler) = 0;
};

using ServiceOptions = std::map<std::string, std::string>;

/// Starts creating a message service object. `name` is what the log calls it; the stand-in knows
/// no option. REQUIRES: getRelay() was called before; otherwise the future holds a
/// `std::logic_error`.
KIROHOST_EXPORT Future<std::shared_ptr<MessageService>> createMessageService(
    const std::string& name, const ServiceOptions& options);

}  // namespace relay::message_service
