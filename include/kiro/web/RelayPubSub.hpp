#pragma once

#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiro/web/PubSubInterface.hpp"

namespace kiro::web {

/// The endpoint over the host's message service. Callbacks run on the service's delivery thread,
/// never on the interpreter's.
class KIROWEB_EXPORT RelayPubSub : public PubSubInterface {
  public:
    /// Creates a message service and waits for it. Signal thread only. Throws what the host
    /// answered with, and `std::runtime_error` when it answered with no service at all.
    RelayPubSub();
    ~RelayPubSub() override;

  protected:
    /// Queues the payload's text and returns at once. Any thread. Throws `std::runtime_error`
    /// ("Out of memory!") when the text cannot be copied; nothing is published then.
    void doPublish(const std::string& channel, PayloadInterface& payload) override;

    /// Waits until the service has the subscription. Signal thread only.
    std::unique_ptr<InternalSubscriberData> doSubscribe(const std::string& channel,
                                                        CallbackType callback) override;

  private:
    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
