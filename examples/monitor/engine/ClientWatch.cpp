#include "engine/ClientWatch.hpp"

#include "Contract.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/Subscriber.hpp"

namespace monitor::engine {

ClientWatch::ClientWatch()
    : fStatus(std::make_shared<kiro::web::ConnectionStatus>(contract::kReconnectChannel,
                                                            contract::kNewViewChannel)),
      fReconnect(fStatus->createReconnectSubscriber(
          [markers = fMarkers](const std::string&, const kiro::web::PayloadInterface&) {
              markers->reconnection = true;
          })),
      fNewView(fStatus->createNewViewListener([markers = fMarkers] { markers->newView = true; })) {}

ClientWatch::~ClientWatch() = default;

ClientWatch::Events ClientWatch::peek() const {
    return {fMarkers->reconnection, fMarkers->newView};
}

ClientWatch::Events ClientWatch::take() {
    return {fMarkers->reconnection.exchange(false), fMarkers->newView.exchange(false)};
}

}  // namespace monitor::engine
