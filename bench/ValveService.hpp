#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "kirohost/Controls.hpp"
#include "relay/message_service/MessageService.hpp"

namespace bench {

/// The message service under the library's endpoint: the host's own one, unless a drain is open,
/// which then gets the messages, on the publishing thread, instead of it.
class ValveService : public relay::message_service::MessageService {
  public:
    using Drain = std::function<void(const relay::message_service::JsonMessage&)>;

    /// Puts the one valve of the process in place of the host's service. REQUIRES: called before
    /// the library makes its endpoint.
    static ValveService& install();

    /// REQUIRES: nothing is being published; `drain` outlives its use. Null closes it again.
    void setDrain(const Drain* drain) { fDrain = drain; }

    /// The client's own service object, which no drain touches.
    [[nodiscard]] MessageService& client() { return *fClient; }
    /// Publishes the client's announcement for the sender called `channel`; when it returns, the
    /// sender has heard it.
    void announce(const std::string& channel);

    ValveService();

  protected:
    relay::Future<relay::message_service::Published> doPublish(
        const std::string& channel, const relay::message_service::JsonMessage& message) override;
    relay::Future<std::shared_ptr<relay::message_service::Subscription>> doSubscribe(
        const std::string& channel, relay::message_service::Handler handler) override;

  private:
    std::shared_ptr<MessageService> fService;
    std::shared_ptr<MessageService> fClient;
    /// The answer of every drained message.
    relay::Future<relay::message_service::Published> fPublished;
    std::atomic<const Drain*> fDrain = nullptr;
};

}  // namespace bench
