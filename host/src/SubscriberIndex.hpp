#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "relay/message_service/MessageService.hpp"
#include "text/ChannelPattern.hpp"

namespace relay {

/// One live subscription, as the bus knows it.
struct Subscriber {
    std::uint64_t service;  ///< number of the service object, ascending in order of creation
    std::string serviceName;
    ChannelPattern pattern;
    message_service::Handler handler;
    std::uint64_t age = 0;  ///< ascending in order of subscription
};

/// The live subscriptions, by what they listen to. The cost of a look-up grows with the
/// wildcards and the matches only. Not synchronised.
class SubscriberIndex {
  public:
    /// REQUIRES: `subscriber` is younger than all that are there.
    void add(std::shared_ptr<const Subscriber> subscriber);
    void remove(const Subscriber& subscriber);

    /// Of the subscribers of `channel` whose service is in (`after`, `last`]: the oldest of the
    /// service with the lowest number; empty when there is none.
    [[nodiscard]] std::shared_ptr<const Subscriber> next(const std::string& channel,
                                                         std::uint64_t after,
                                                         std::uint64_t last) const;

  private:
    using Subscribers = std::vector<std::shared_ptr<const Subscriber>>;

    std::unordered_map<std::string, Subscribers> fExact;
    Subscribers fWildcards;
};

}  // namespace relay
