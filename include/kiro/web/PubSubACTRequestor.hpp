#pragma once

#include <memory>
#include <string>

#include "kiro/ACTRequestor.hpp"
#include "kiro/Export.hpp"

namespace kiro::web {

class CommandSenderInterface;

/// Sends completion tokens to the page as the command "sendACT", behind all earlier commands of
/// the same sender, and takes them back on a return channel.
///
/// The token message holds "ACT" (the token) and "returnChannel"; with time-stamp logging on also
/// "serverSendTS", "clientReceiveTS", "clientSendTS" and "serverReceiveTS". The reply on the
/// return channel holds "ACT" and may hold the first three stamps; a reply that is no JSON object,
/// has no "ACT" or comes when the requestor is gone is dropped silently.
///
/// One requestor per return channel at a time: the transport's subscription is the oldest one's.
/// When a new requestor is made while an older one of its channel lives, replies reach both, but
/// end for both with the older one; so destroy that first.
///
/// When the host's time-out logging is on at construction or at a later send, the recorder of
/// client messages comes into being and stays until the process ends. Signal thread, like
/// `ACTRequestor`; replies arrive on the message service's thread.
class KIROWEB_EXPORT PubSubACTRequestor : public ACTRequestor {
  public:
    /// `sender` may be empty; tokens then time out. `source` names this requestor in the logs,
    /// `clientKind` is a word for the client in the user's time-out text, `lifecycleTracing`
    /// traces returned tokens on the diagnostic logger "graphics::ACT".
    PubSubACTRequestor(std::shared_ptr<CommandSenderInterface> sender,
                       const std::string& returnChannel, const std::string& source,
                       const std::string& clientKind, bool lifecycleTracing);
    ~PubSubACTRequestor() override;

    /// Replaces the sender, which may be empty.
    void setCommandSender(std::shared_ptr<CommandSenderInterface> sender);

    void convertToPayload(JSONPayload& payload,
                          const kiroutils::CompletionToken& token) const override;

  protected:
    void doSendACT(const kiroutils::CompletionToken& token) override;
    /// Whether the client may be connected, and the recorder's history.
    [[nodiscard]] std::string getDetailsForInternalTimeoutWarning() const override;
    /// Why the token may not have come back, in the user's words.
    [[nodiscard]] std::string getDetailsForCustomerTimeoutWarning() const override;

  private:
    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

namespace test {

/// Has the recorder's history cleared on every memory-snapshot event, so that a leak snapshot
/// does not count its text. The first call counts, later ones do nothing.
KIROWEB_EXPORT void enablePubSubACTRequestorTesting();

}  // namespace test
}  // namespace kiro::web
