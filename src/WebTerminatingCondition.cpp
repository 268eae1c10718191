#include "kiro/web/WebTerminatingCondition.hpp"

#include <atomic>
#include <chrono>
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
        : connectionStatus(std::move(status)), markers(std::make_shared<EventMarkers>()) {
        // Without a status no events come.
        if (connectionStatus == nullptr) return;
        reconnectSubscription = connectionStatus->createReconnectSubscriber(
            [markers = markers](const std::string& /*channel*/,
                                const PayloadInterface& /*payload*/) {
                markers->reconnect = true;
            });
        newViewListener = connectionStatus->createNewViewListener(
            [markers = markers] { markers->newView = true; });
    }

    std::shared_ptr<ConnectionStatus> connectionStatus;
    std::unique_ptr<Subscriber> reconnectSubscription;
    kiroutils::EventDispatcher::Listener newViewListener;
    std::shared_ptr<EventMarkers> markers;
};

WebTerminatingCondition::WebTerminatingCondition(const std::string& name,
                                                 std::function<bool()> condition,
                                                 std::shared_ptr<ConnectionStatus> status)
    : KiroTerminatingCondition(name, std::move(condition), kTimeout),
      fImpl(std::make_unique<Impl>(std::move(status))) {}

WebTerminatingCondition::~WebTerminatingCondition() = default;

bool WebTerminatingCondition::doThrowIfError() {
    // A reconnection goes first and leaves a new view for the next look.
    if (fImpl->markers->reconnect.exchange(false)) {
        respondToError("reconnect", catalog::key_reconnect());
    }
    if (fImpl->markers->newView.exchange(false)) {
        respondToError("new view", catalog::key_newView());
    }
    return false;
}

}  // namespace kiro::web
