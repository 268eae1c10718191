#include "kiro/web/Subscriber.hpp"

#include <utility>

namespace kiro::web {

InternalSubscriberData::~InternalSubscriberData() = default;

Subscriber::Subscriber(kiroutils::EventDispatcher::Listener listener,
                       std::unique_ptr<InternalSubscriberData> data)
    : fListener(std::move(listener)), fInternalData(std::move(data)) {}

Subscriber::~Subscriber() {
    // The transport first: no message is on its way to a callback that is being detached.
    fInternalData.reset();
    destroyEventListener();
}

void Subscriber::destroyEventListener() { const auto gone = std::move(fListener); }

}  // namespace kiro::web
