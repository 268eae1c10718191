#include "kiro/web/ConnectionStatus.hpp"

#include <utility>

#include "annotated/Mutex.hpp"
#include "bedrock/core/diag/assertion.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"

namespace kiro::web {

namespace {

const char* const kNewViewEvent = "NEWVIEW_EVENT";

/// Shared with the subscription's callback, which holds it weakly.
class ConnectionStatusDispatcher {
  public:
    [[nodiscard]] bool isFirstViewPending() const EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return fFirstViewPending;
    }

    /// The first view is the initial one and is not reported. Listeners run outside the lock.
    void newView() EXCLUDES_LOCK(fMutex) {
        {
            const annotated::Lock lock(fMutex);
            if (std::exchange(fFirstViewPending, false)) return;
        }
        fDispatcher.send(kNewViewEvent, kiroutils::EventData());
    }

    kiroutils::EventDispatcher::Listener createListener(ConnectionStatus::NewViewCallback fcn) {
        if (fcn == nullptr) {
            // A fixed text, see FixedAssertion.hpp; this one ends the process on every host.
            bedrock::core::diag::terminate(
                "fcn != nullptr", "src/ConnectionStatus", 33,
                "kiroutils::EventDispatcher::Listener "
                "{anonymous}::ConnectionStatusDispatcher::createListener("
                "kiro::web::ConnectionStatus::NewViewCallback)");
        }
        return fDispatcher.createListener(
            kNewViewEvent, [fcn = std::move(fcn)](const std::string& /*name*/,
                                                  const kiroutils::EventData& /*data*/) { fcn(); });
    }

  private:
    mutable annotated::Mutex fMutex;
    bool fFirstViewPending GUARDED_BY(fMutex) = true;
    kiroutils::EventDispatcher fDispatcher;
};

}  // namespace

class ConnectionStatus::Impl {
  public:
    Impl(const std::string& reconnectChannel, const std::string& newViewChannel)
        : fReconnectChannel(reconnectChannel),
          fNewViewChannel(newViewChannel),
          fData(std::make_shared<ConnectionStatusDispatcher>()) {
        // After the shared data: a message may come before subscribe has returned.
        fNewViewSubscription =
            subscribe(PubSubFactory::pubsubInstance(), fNewViewChannel,
                      [weak = std::weak_ptr<ConnectionStatusDispatcher>(fData)](
                          const std::string& /*channel*/, const PayloadInterface& /*payload*/) {
                          if (const auto data = weak.lock()) data->newView();
                      });
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    ~Impl() {
        // The data before the subscription: a view that opens meanwhile finds nobody.
        fData.reset();
        fNewViewSubscription.reset();
    }

    [[nodiscard]] bool getStatus() const { return !fData->isFirstViewPending(); }

    kiroutils::EventDispatcher::Listener createNewViewListener(NewViewCallback fcn) {
        return fData->createListener(std::move(fcn));
    }

    std::unique_ptr<Subscriber> createReconnectSubscriber(
        PubSubInterface::CallbackType callback) const {
        return subscribe(PubSubFactory::pubsubInstance(), fReconnectChannel, std::move(callback));
    }

  private:
    std::string fReconnectChannel;
    std::string fNewViewChannel;
    std::unique_ptr<Subscriber> fNewViewSubscription;
    std::shared_ptr<ConnectionStatusDispatcher> fData;
};

ConnectionStatus::ConnectionStatus(const std::string& reconnectChannel,
                                   const std::string& newViewChannel)
    : fImpl(std::make_unique<Impl>(reconnectChannel, newViewChannel)) {}

ConnectionStatus::~ConnectionStatus() = default;

bool ConnectionStatus::getStatus() const { return fImpl->getStatus(); }

kiroutils::EventDispatcher::Listener ConnectionStatus::createNewViewListener(NewViewCallback fcn) {
    return fImpl->createNewViewListener(std::move(fcn));
}

std::unique_ptr<Subscriber> ConnectionStatus::createReconnectSubscriber(
    std::function<void(const std::string&, const PayloadInterface&)> callback) {
    return fImpl->createReconnectSubscriber(std::move(callback));
}

}  // namespace kiro::web
