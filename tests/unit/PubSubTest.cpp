#include "kiro/web/PubSubInterface.hpp"
// The header above compiles by itself; so do these.
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/Subscriber.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "Fixture.hpp"
#include "kiro/web/StringPayload.hpp"

namespace kiro::web {
namespace {

static_assert(std::is_nothrow_destructible_v<Subscriber>);
static_assert(!std::is_copy_constructible_v<Subscriber>);
static_assert(!std::is_polymorphic_v<Subscriber>);
static_assert(std::has_virtual_destructor_v<PubSubInterface>);
static_assert(std::has_virtual_destructor_v<InternalSubscriberData>);
static_assert(!std::is_copy_constructible_v<PubSubInterface>);

using support::Lines;
using support::Recorder;

/// Lends the endpoint's dispatcher, through which event data that is no payload gets in: an
/// explicit instantiation may name a private member.
kiroutils::EventDispatcher& dispatcherOf(PubSubInterface& endpoint);
template <auto Member>
struct LendDispatcher {
    friend kiroutils::EventDispatcher& dispatcherOf(PubSubInterface& endpoint) {
        return *(endpoint.*Member);
    }
};
template struct LendDispatcher<&PubSubInterface::fDispatcher>;

void publishOn(PubSubInterface& endpoint, const std::string& channel, const std::string& text) {
    StringPayload payload(text);
    endpoint.publish(channel, payload);
}

/// An endpoint whose transport is in the test's hands.
class ManualPubSub : public PubSubInterface {
  public:
    /// What happened at the transport: "+channel", "-channel".
    std::shared_ptr<Lines> log = std::make_shared<Lines>();
    std::vector<CallbackType> transport;
    bool refuses = false;
    bool overridesDelivery = false;
    Lines intercepted;

    void handlePublishCallback(const std::string& channel,
                               const PayloadInterface& payload) override {
        intercepted.push_back(channel + " " + payload.convertToString());
        if (!overridesDelivery) PubSubInterface::handlePublishCallback(channel, payload);
    }

  protected:
    void doPublish(const std::string& channel, PayloadInterface& payload) override {
        log->push_back("publish " + channel + " " + payload.convertToString());
    }

    std::unique_ptr<InternalSubscriberData> doSubscribe(const std::string& channel,
                                                        CallbackType callback) override {
        if (refuses) throw std::runtime_error("refused");
        transport.push_back(std::move(callback));
        log->push_back("+" + channel);
        return std::make_unique<Ending>([log = log, channel] { log->push_back("-" + channel); });
    }

  private:
    struct Ending : InternalSubscriberData {
        explicit Ending(std::function<void()> function) : end(std::move(function)) {}
        Ending(const Ending&) = delete;
        Ending& operator=(const Ending&) = delete;
        ~Ending() override { end(); }
        std::function<void()> end;
    };
};

TEST(PubSub, fakeLoopsEveryPublishBackOnThePublishingThread) {
    const auto endpoint = std::make_shared<test::FakePubSub>();
    const Recorder first;
    const Recorder second;
    publishOn(*endpoint, "c", "nobody");
    auto one = subscribe(endpoint, "c", first.callback());
    const auto two = subscribe(endpoint, "c", second.callback());
    publishOn(*endpoint, "c", "both");
    publishOn(*endpoint, "other", "nobody");
    one.reset();
    publishOn(*endpoint, "c", "second only");
    EXPECT_EQ(first.lines(), Lines{"c both"});
    EXPECT_EQ(second.lines(), (Lines{"c both", "c second only"}));
    EXPECT_EQ(first.all().front().thread, std::this_thread::get_id());
}

TEST(PubSub, onlyAFinalSlashStarIsAWildcard) {
    const std::string longName = "/" + std::string(1 << 20, 'x');
    const struct {
        std::string subscribed;
        std::string published;
        bool arrives;
    } table[] = {
        {"", "", true},
        {"", "/a", false},
        {longName, longName, true},
        {longName, longName + "x", false},
        {"/graphics/*", "/graphics/a", true},
        {"/graphics/*", "/graphics/a/b", true},
        {"/graphics/*", "/graphics/*", true},
        {"/graphics/*", "/graphics", false},
        {"/*", "/a", true},
        {"*", "a", false},
        {"*", "*", true},
        {"/a*", "/ab", false},
        {"/*/a", "/b/a", false},
        {"/a/**", "/a/b", false},
        {"****", "****", true},
        {"/*/*/*", "/*/*/a", true},
        {"/*/*/*", "/a/b/c", false},
    };
    for (const auto& row : table) {
        const auto endpoint = std::make_shared<test::FakePubSub>();
        const Recorder recorder;
        const auto subscriber = subscribe(endpoint, row.subscribed, recorder.callback());
        publishOn(*endpoint, row.published, "x");
        EXPECT_EQ(recorder.messagesOn(row.published), row.arrives ? Lines{"x"} : Lines{})
            << row.subscribed.substr(0, 20) << " " << row.published.substr(0, 20);
    }
}

TEST(PubSub, theFirstSubscriberOfAChannelOwnsTheTransportsSubscription) {
    const auto endpoint = std::make_shared<ManualPubSub>();
    const Recorder recorder;
    auto first = subscribe(endpoint, "c", recorder.callback());
    auto second = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(*endpoint->log, Lines{"+c"});
    endpoint->transport.front()("c", StringPayload("twice"));
    EXPECT_EQ(recorder.messagesOn("c"), (Lines{"twice", "twice"}));

    first.reset();
    EXPECT_EQ(*endpoint->log, (Lines{"+c", "-c"}));
    auto third = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(endpoint->transport.size(), 1U) << "the second one still listens";
    endpoint->handlePublishCallback("c", StringPayload("local"));
    EXPECT_EQ(recorder.messagesOn("c").size(), 4U);

    second.reset();
    third.reset();
    const auto fourth = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(*endpoint->log, (Lines{"+c", "-c", "+c"}));
}

TEST(PubSub, subscriberEndsTheTransportBeforeItDetaches) {
    kiroutils::EventDispatcher dispatcher;
    struct Ending : InternalSubscriberData {
        explicit Ending(kiroutils::EventDispatcher& theDispatcher) : dispatcher(theDispatcher) {}
        ~Ending() override { dispatcher.send("c", StringPayload("last")); }
        kiroutils::EventDispatcher& dispatcher;
    };
    Lines heard;
    {
        const Subscriber subscriber(
            dispatcher.createListener(
                "c", [&heard](const std::string& name, const auto&) { heard.push_back(name); }),
            std::make_unique<Ending>(dispatcher));
    }
    EXPECT_EQ(heard, Lines{"c"}) << "still attached while the transport's subscription ended";
    dispatcher.send("c", StringPayload("later"));
    EXPECT_EQ(heard.size(), 1U);
}

TEST(PubSub, destroyEventListenerDetachesAtOnceAndKeepsTheTransport) {
    const auto endpoint = std::make_shared<ManualPubSub>();
    const Recorder recorder;
    auto subscriber = subscribe(endpoint, "c", recorder.callback());
    subscriber->destroyEventListener();
    subscriber->destroyEventListener();
    endpoint->transport.front()("c", StringPayload("unheard"));
    EXPECT_EQ(*endpoint->log, Lines{"+c"});
    subscriber.reset();
    EXPECT_EQ(*endpoint->log, (Lines{"+c", "-c"}));
    EXPECT_TRUE(recorder.all().empty());
}

TEST(PubSub, theTransportNeitherKeepsTheEndpointNorReachesItAfterItsEnd) {
    auto endpoint = std::make_shared<ManualPubSub>();
    const Recorder recorder;
    auto subscriber = subscribe(endpoint, "c", recorder.callback());
    const auto transport = endpoint->transport.front();
    const auto log = endpoint->log;
    const std::weak_ptr<ManualPubSub> weak = endpoint;
    endpoint.reset();
    EXPECT_TRUE(weak.expired());
    transport("c", StringPayload("late"));
    subscriber.reset();
    EXPECT_EQ(*log, (Lines{"+c", "-c"}));
    EXPECT_TRUE(recorder.all().empty());
}

TEST(PubSub, incomingMessagesPassTheVirtualOperationWithTheirOwnChannel) {
    const auto endpoint = std::make_shared<ManualPubSub>();
    const Recorder recorder;
    const auto subscriber = subscribe(endpoint, "/g/*", recorder.callback());
    endpoint->transport.front()("/g/a", StringPayload("1"));
    endpoint->overridesDelivery = true;
    endpoint->transport.front()("/g/b", StringPayload("2"));
    EXPECT_EQ(endpoint->intercepted, (Lines{"/g/a 1", "/g/b 2"}));
    EXPECT_EQ(recorder.lines(), Lines{"/g/a 1"});
}

TEST(PubSub, aRefusedSubscriptionLeavesNothingRegistered) {
    const auto endpoint = std::make_shared<ManualPubSub>();
    const Recorder recorder;
    endpoint->refuses = true;
    EXPECT_THROW((void)subscribe(endpoint, "c", recorder.callback()), std::runtime_error);
    endpoint->handlePublishCallback("c", StringPayload("unheard"));
    EXPECT_TRUE(recorder.all().empty());
    endpoint->refuses = false;
    const auto subscriber = subscribe(endpoint, "c", recorder.callback());
    EXPECT_EQ(*endpoint->log, Lines{"+c"}) << "counted as the channel's first";
}

TEST(PubSub, whatGoesWrongInDeliveryReachesWhoDelivers) {
    const auto endpoint = std::make_shared<test::FakePubSub>();
    const auto empty = subscribe(endpoint, "empty", nullptr);
    const auto throwing = subscribe(endpoint, "throwing", [](const auto&, const auto&) {
        throw std::domain_error("callback");
    });
    EXPECT_THROW(publishOn(*endpoint, "empty", ""), std::bad_function_call);
    EXPECT_THROW(publishOn(*endpoint, "throwing", ""), std::domain_error);
}

TEST(PubSub, eventDataThatIsNoPayloadIsABadCast) {
    const auto endpoint = std::make_shared<test::FakePubSub>();
    const auto subscriber = subscribe(endpoint, "c", [](const auto&, const auto&) {});
    EXPECT_THROW(dispatcherOf(*endpoint).send("c", kiroutils::EventData()), std::bad_cast);
}

TEST(PubSub, aSubscriberMayEndInsideItsOwnCallback) {
    const auto endpoint = std::make_shared<test::FakePubSub>();
    int calls = 0;
    std::unique_ptr<Subscriber> subscriber;
    subscriber = subscribe(endpoint, "c", [&](const auto&, const auto&) {
        ++calls;
        subscriber.reset();
    });
    publishOn(*endpoint, "c", "1");
    publishOn(*endpoint, "c", "2");
    EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace kiro::web
