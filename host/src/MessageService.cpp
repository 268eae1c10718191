#include "relay/message_service/MessageService.hpp"

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <utility>

#include "Bus.hpp"
#include "Replacement.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace relay::message_service {
namespace {

template <typename Value>
Future<Value> makeFailedFuture(std::exception_ptr error) {
    Promise<Value> promise;
    auto future = promise.getFuture();
    promise.setException(std::move(error));
    return future;
}

/// The answer of every publish. A `Published` is empty, so taking it out of the shared state
/// leaves it there for the next one, and a publish costs no allocation. The state is never
/// destroyed, so nobody counts who holds it.
Future<Published> published() {
    static Immortal<Future<Published>> ready(makeReadyFuture(Published{}));
    return Future<Published>({std::shared_ptr<void>(), ready->state().get()});
}

class BusSubscription final : public Subscription {
  public:
    explicit BusSubscription(Subscriber subscriber)
        : fSubscriber(std::make_shared<Subscriber>(std::move(subscriber))) {
        Bus::instance().subscribe(fSubscriber);
    }
    BusSubscription(const BusSubscription&) = delete;
    BusSubscription& operator=(const BusSubscription&) = delete;
    ~BusSubscription() override { Bus::instance().unsubscribe(*fSubscriber); }

  private:
    const std::shared_ptr<Subscriber> fSubscriber;
};

class BusMessageService final : public MessageService {
  public:
    explicit BusMessageService(std::string name)
        : fName(std::move(name)), fNumber(Bus::instance().addService()) {}

  protected:
    Future<Published> doPublish(const std::string& channel, const JsonMessage& message) override {
        const bool hasText = message.json != nullptr;
        const auto text = hasText ? std::string_view(message.json, message.length) : "";
        Bus::instance().publish({channel, text}, hasText);
        return published();
    }

    Future<std::shared_ptr<Subscription>> doSubscribe(const std::string& channel,
                                                      Handler handler) override {
        try {
            return makeReadyFuture<std::shared_ptr<Subscription>>(std::make_shared<BusSubscription>(
                Subscriber{fNumber, fName, ChannelPattern(channel), std::move(handler)}));
        } catch (...) {
            return makeFailedFuture<std::shared_ptr<Subscription>>(std::current_exception());
        }
    }

  private:
    const std::string fName;
    const std::uint64_t fNumber;
};

Replacement<kirohost::MessageServiceFactory>& replacement() {
    static Immortal<Replacement<kirohost::MessageServiceFactory>> instance;
    return *instance;
}

}  // namespace

Subscription::~Subscription() = default;
MessageService::~MessageService() = default;

Future<std::shared_ptr<MessageService>> createMessageService(const std::string& name,
                                                             const ServiceOptions& /*options*/) {
    if (const auto factory = replacement().current()) return (*factory)(name);
    if (!Bus::instance().isConnected()) {
        return makeFailedFuture<std::shared_ptr<MessageService>>(std::make_exception_ptr(
            std::logic_error("getRelay() was not called before createMessageService()")));
    }
    return makeReadyFuture<std::shared_ptr<MessageService>>(
        std::make_shared<BusMessageService>(name));
}

}  // namespace relay::message_service

kirohost::Scope kirohost::replaceMessageService(MessageServiceFactory factory) {
    return relay::message_service::replacement().install(std::move(factory));
}
