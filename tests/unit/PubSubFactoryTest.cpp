#include "kiro/web/PubSubFactory.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Captures.hpp"
#include "Fixture.hpp"
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/RelayPubSub.hpp"

// Each of these tests needs a process in which nobody has used the factory yet.

namespace kiro::web {
namespace {

static_assert(!std::is_default_constructible_v<PubSubFactory>);

using Endpoint = std::shared_ptr<PubSubInterface>;

Endpoint makeFake() { return std::make_shared<test::FakePubSub>(); }

TEST(PubSubFactory, makesOneRelayEndpointByDefaultAndFreshOnesForTheOthers) {
    EXPECT_EQ(PubSubFactory::fPubSubCreationFcn, nullptr);
    const auto first = PubSubFactory::makePubSubWithDefault(&makeFake);
    const auto instance = PubSubFactory::pubsubInstance();
    const auto second = PubSubFactory::makePubSubWithDefault(&makeFake);
    EXPECT_NE(dynamic_cast<RelayPubSub*>(instance.get()), nullptr);
    EXPECT_EQ(instance, PubSubFactory::pubsubInstance());
    EXPECT_EQ((std::set{first, instance, second}.size()), 3U);
    EXPECT_NE(dynamic_cast<test::FakePubSub*>(second.get()), nullptr);
    EXPECT_NE(PubSubFactory::fPubSubCreationFcn, nullptr);
}

TEST(PubSubFactory, steersEverybodyOntoTheEndpointOfAnInstalledFunction) {
    int made = 0;
    PubSubFactory::setPubSubCreationFcn([&made] {
        ++made;
        return makeFake();
    });
    const auto shared = PubSubFactory::makePubSubWithDefault([]() -> Endpoint {
        ADD_FAILURE() << "the default is never asked";
        return nullptr;
    });
    EXPECT_NE(shared, nullptr);
    EXPECT_EQ(shared, PubSubFactory::makePubSubWithDefault(nullptr));
    EXPECT_EQ(shared, PubSubFactory::pubsubInstance());
    EXPECT_EQ(made, 1);
}

TEST(PubSubFactory, triesAgainAfterACreationThatThrew) {
    int calls = 0;
    PubSubFactory::setPubSubCreationFcn([&calls] {
        if (++calls < 3) throw std::runtime_error("not yet");
        return makeFake();
    });
    EXPECT_THROW(PubSubFactory::pubsubInstance(), std::runtime_error);
    EXPECT_THROW(PubSubFactory::makePubSubWithDefault(&makeFake), std::runtime_error);
    const auto instance = PubSubFactory::pubsubInstance();
    EXPECT_NE(instance, nullptr);
    EXPECT_EQ(instance, PubSubFactory::pubsubInstance());
    EXPECT_EQ(calls, 3);
}

TEST(PubSubFactory, commitsToAnEmptyEndpoint) {
    int calls = 0;
    PubSubFactory::setPubSubCreationFcn([&calls]() -> Endpoint {
        ++calls;
        return nullptr;
    });
    EXPECT_EQ(PubSubFactory::pubsubInstance(), nullptr);
    EXPECT_EQ(PubSubFactory::pubsubInstance(), nullptr);
    EXPECT_EQ(calls, 1);
}

TEST(PubSubFactory, takesAnEmptyCreationFunctionForNone) {
    PubSubFactory::setPubSubCreationFcn(nullptr);
    EXPECT_NE(dynamic_cast<RelayPubSub*>(PubSubFactory::pubsubInstance().get()), nullptr);
    const auto own = PubSubFactory::makePubSubWithDefault(&makeFake);
    EXPECT_NE(own, PubSubFactory::pubsubInstance());
}

TEST(PubSubFactory, givesConcurrentFirstCallersOneEndpoint) {
    constexpr int kThreads = 8;
    std::latch start(kThreads);
    std::promise<void> gate;
    int calls = 0;  // unguarded: the once region is what orders the calls
    PubSubFactory::setPubSubCreationFcn([&] {
        if (++calls == 1) throw std::runtime_error("the first caller's bad luck");
        gate.get_future().wait();
        return makeFake();
    });
    support::Collector<Endpoint> got;
    support::Collector<int> failed;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            try {
                got.add(PubSubFactory::pubsubInstance());
            } catch (const std::runtime_error&) {
                failed.add(1);
            }
        });
    }
    failed.awaitSize(1);
    EXPECT_EQ(got.size(), 0U) << "nobody has an endpoint before it is made";
    gate.set_value();
    threads.clear();
    const auto endpoints = got.all();
    EXPECT_EQ(endpoints.size(), kThreads - 1U);
    EXPECT_EQ((std::set(endpoints.begin(), endpoints.end()).size()), 1U);
    EXPECT_EQ(calls, 2);
}

TEST(PubSubFactory, reportsASecondFunctionAndTakesIt) {
    const support::AssertionCapture assertions;
    int made = 0;
    PubSubFactory::setPubSubCreationFcn(&makeFake);
    PubSubFactory::setPubSubCreationFcn([&made] {
        ++made;
        return makeFake();
    });
    (void)PubSubFactory::pubsubInstance();
    EXPECT_EQ(made, 1);
    ASSERT_EQ(assertions.texts(),
              support::Lines{"src/PubSubFactory:19: fPubSubCreationFcn == nullptr"});
    EXPECT_EQ(assertions.all().front().function,
              "static void kiro::web::PubSubFactory::setPubSubCreationFcn(pubsub_creation_fcn)");
}

TEST(PubSubFactory, reportsAFunctionThatComesAfterTheDefaultWasInstalled) {
    (void)PubSubFactory::pubsubInstance();
    const support::AssertionCapture assertions;
    PubSubFactory::setPubSubCreationFcn(&makeFake);
    EXPECT_EQ(assertions.size(), 1U);
    EXPECT_EQ(PubSubFactory::makePubSubWithDefault(nullptr), PubSubFactory::pubsubInstance());
}

TEST(PubSubFactory, reportsAnEmptyDefaultAndThrows) {
    const support::AssertionCapture assertions;
    EXPECT_THROW(PubSubFactory::makePubSubWithDefault(nullptr), std::bad_function_call);
    ASSERT_EQ(assertions.texts(), support::Lines{"src/PubSubFactory:47: defaultFcn != nullptr"});
    EXPECT_EQ(assertions.all().front().function,
              "static std::shared_ptr<kiro::web::PubSubInterface> "
              "kiro::web::PubSubFactory::makePubSubWithDefault(pubsub_creation_fcn)");
}

TEST(PubSubFactoryDeathTest, failedAssertionsEndTheProcess) {
    EXPECT_DEATH((void)PubSubFactory::makePubSubWithDefault(nullptr),
                 "defaultFcn != nullptr, src/PubSubFactory:47");
    PubSubFactory::setPubSubCreationFcn(&makeFake);
    EXPECT_DEATH(PubSubFactory::setPubSubCreationFcn(&makeFake),
                 "fPubSubCreationFcn == nullptr, src/PubSubFactory:19");
}

}  // namespace
}  // namespace kiro::web
