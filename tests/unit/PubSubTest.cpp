#include "kiro/web/PubSubInterface.hpp"
// The header above compiles by itself; so do these.
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/Subscriber.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Fixture.hpp"
#include "kiro/web/StringPayload.hpp"

namespace kiro::web {
namespace {

static_assert(std::is_nothrow_destructible_v<Subscriber>);

using support::Lines;
using support::Recorder;

/// A transport's subscription that tells of its end.
struct Ending : InternalSubscriberData {
    explicit Ending(std::function<void()> end) : fEnd(nullptr, [end](void*) { end(); }) {}
    const std::shared_ptr<void> fEnd;
};

/// An endpoint whose transport is in the test's hands.
class ManualPubSub : public PubSubInterface {
  public:
    /// What happened at the transport: "+channel", "-channel".
    std::shared_ptr<Lines> log = std::make_shared<Lines>();
    std::vector<CallbackType> transport;

  protected:
    void doPublish(const std::string& /*channel*/, PayloadInterface& /*payload*/) override {}

    std::unique_ptr<InternalSubscriberData> doSubscribe(const std::string& channel,
                                                        CallbackType callback) override {
        transport.push_back(std::move(callback));
        log->push_back("+" + channel);
        return std::make_unique<Ending>([log = log, channel] { log->push_back("-" + channel); });
    }
};

TEST(PubSub, theFirstSubscriberOfAChannelOwnsTheTransportsSubscription) {
    const auto endpoint = std::make_shared<ManualPubSub>();
    const Recorder recorder;
    auto first = subscribe(endpoint, "c", recorder.callback());
    auto second = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(*endpoint->log, Lines{"+c"});
    endpoint->transport.front()("c", StringPayload("twice"));
    EXPECT_EQ(recorder.messagesOn("c"), (Lines{"twice", "twice"}));

    first.reset();
    auto third = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(endpoint->transport.size(), 1U) << "the second one still listens";

    second.reset();
    third.reset();
    const auto fourth = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(*endpoint->log, (Lines{"+c", "-c", "+c"}));
}

TEST(PubSub, theTransportNeitherKeepsTheEndpointNorReachesItOrADetachedListener) {
    auto endpoint = std::make_shared<ManualPubSub>();
    const Recorder recorder;
    auto subscriber = subscribe(endpoint, "c", recorder.callback());
    const auto detached = subscribe(endpoint, "c", recorder.callback());
    detached->destroyEventListener();
    detached->destroyEventListener();
    const auto transport = endpoint->transport.front();
    const auto log = endpoint->log;
    transport("c", StringPayload("heard once"));
    const std::weak_ptr<ManualPubSub> weak = endpoint;
    endpoint.reset();
    EXPECT_TRUE(weak.expired());
    transport("c", StringPayload("late"));
    subscriber.reset();
    EXPECT_EQ(*log, (Lines{"+c", "-c"}));
    EXPECT_EQ(recorder.lines(), Lines{"c heard once"});
}

}  // namespace
}  // namespace kiro::web
