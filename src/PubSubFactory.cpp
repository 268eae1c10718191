#include "kiro/web/PubSubFactory.hpp"

#include <utility>

#include "FixedAssertion.hpp"
#include "OnceGuard.hpp"
#include "ProcessWideEndpoint.hpp"
#include "kiro/web/RelayPubSub.hpp"
#include "process/Immortal.hpp"

namespace kiro::web {

PubSubFactory::pubsub_creation_fcn PubSubFactory::fPubSubCreationFcn;
std::atomic<bool> PubSubFactory::fDefaultInUse = true;

namespace {

struct ProcessWideEndpoint {
    OnceGuard fOnce{annotated::Rank::kFactory};
    std::shared_ptr<PubSubInterface> fInstance;
};

/// A service's thread may ask for the endpoint while the process exits.
ProcessWideEndpoint& processWideEndpoint() {
    static Immortal<ProcessWideEndpoint> endpoint;
    return *endpoint;
}

}  // namespace

bool isEndpointMade() { return processWideEndpoint().fOnce.isDone(); }

PubSubInterface& theEndpoint() {
    auto& endpoint = processWideEndpoint();
    return endpoint.fOnce.isDone() ? *endpoint.fInstance : *PubSubFactory::pubsubInstance();
}

void PubSubFactory::setPubSubCreationFcn(pubsub_creation_fcn fcn) {
    assertAt({"src/PubSubFactory", 19,
              "static void kiro::web::PubSubFactory::setPubSubCreationFcn(pubsub_creation_fcn)"},
             fPubSubCreationFcn == nullptr, "fPubSubCreationFcn == nullptr");
    fPubSubCreationFcn = std::move(fcn);
    fDefaultInUse = false;
}

std::shared_ptr<PubSubInterface> PubSubFactory::pubsubInstance() {
    auto& endpoint = processWideEndpoint();
    endpoint.fOnce.run([&endpoint] {
        if (fPubSubCreationFcn == nullptr) {
            setPubSubCreationFcn([] { return std::make_shared<RelayPubSub>(); });
            fDefaultInUse = true;
        }
        endpoint.fInstance = fPubSubCreationFcn();
    });
    return endpoint.fInstance;
}

std::shared_ptr<PubSubInterface> PubSubFactory::makePubSubWithDefault(
    pubsub_creation_fcn defaultFcn) {
    if (!fDefaultInUse) return pubsubInstance();
    assertAt({"src/PubSubFactory", 47,
              "static std::shared_ptr<kiro::web::PubSubInterface> "
              "kiro::web::PubSubFactory::makePubSubWithDefault(pubsub_creation_fcn)"},
             defaultFcn != nullptr, "defaultFcn != nullptr");
    return defaultFcn();
}

}  // namespace kiro::web
