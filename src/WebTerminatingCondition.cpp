#include "kiro/web/WebTerminatingCondition.hpp"

#include <atomic>
#include <chrono>
#include <new>
#include <utility>

#include "component_Quarn/catalog_graphics.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/Subscriber.hpp"

namespace kiro::web {

namespace catalog = component_Quarn::catalog_graphics;

namespace {

constexpr std::chrono::seconds kTimeout(1200);

/// Set on the message service's thread, exchanged on the waiting one.
struct EventMarkers {
    std::atomic<bool> reconnect = false;
    std::atomic<bool> newView = false;
};

}  // namespace

struct WebTerminatingCondition::Impl {
    explicit Impl(std::shared_ptr<ConnectionStatus> status)
        : fConnectionStatus(std::move(status)), fMarkers(std::make_shared<EventMarkers>()) {
        // Without a status no events come.
        if (fConnectionStatus == nullptr) return;
        fReconnectSubscription = fConnectionStatus->createReconnectSubscriber(
            [markers = fMarkers](const std::string& /*channel*/,
                                 const PayloadInterface& /*payload*/) {
                markers->reconnect = true;
            });
        fNewViewListener = fConnectionStatus->createNewViewListener(
            [markers = fMarkers] { markers->newView = true; });
    }

    std::shared_ptr<ConnectionStatus> fConnectionStatus;
    std::unique_ptr<Subscriber> fReconnectSubscription;
    kiroutils::EventDispatcher::Listener fNewViewListener;
    std::shared_ptr<EventMarkers> fMarkers;
};

WebTerminatingCondition::WebTerminatingCondition(const std::string& name,
                                                 std::function<bool()> condition,
                                                 std::shared_ptr<ConnectionStatus> status)
    : KiroTerminatingCondition(name, std::move(condition), kTimeout),
      fImpl(std::make_unique<Impl>(std::move(status))) {}

WebTerminatingCondition::~WebTerminatingCondition() = default;

bool WebTerminatingCondition::doThrowIfError() {
    const auto raise = [this](std::atomic<bool>& marker, const char* what, const auto& key) {
        if (!marker.exchange(false)) return;
        try {
            respondToError(what, key);
        } catch (const std::bad_alloc&) {
            marker = true;  // nobody has heard of it
            throw;
        }
    };
    // A reconnection goes first and leaves a new view for the next look.
    raise(fImpl->fMarkers->reconnect, "reconnect", catalog::key_reconnect());
    raise(fImpl->fMarkers->newView, "new view", catalog::key_newView());
    return false;
}

}  // namespace kiro::web
