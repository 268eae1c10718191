#pragma once

#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiro/web/PubSubInterface.hpp"

namespace kiro::web::test {

/// An endpoint that loops every publish back to its own subscribers, on the publishing thread and
/// before `publish` returns. Nothing leaves the process; a channel that nobody hears drops.
///
/// Beware: a callback that runs inside a command's publish runs under the mutex of the
/// bootstrapping sender. Announcing "channel ready" to that sender, sending through it or
/// destroying it there locks it against itself.
class KIROWEB_EXPORT FakePubSub : public PubSubInterface {
  public:
    FakePubSub();
    ~FakePubSub() override;

  protected:
    void doPublish(const std::string& channel, PayloadInterface& payload) override;
    std::unique_ptr<InternalSubscriberData> doSubscribe(const std::string& channel,
                                                        CallbackType callback) override;
};

}  // namespace kiro::web::test
