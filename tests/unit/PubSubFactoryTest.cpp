#include "kiro/web/PubSubFactory.hpp"

#include <algorithm>
#include <latch>
#include <set>

#include "Binary.hpp"
#include "Fixture.hpp"
#include "kiro/web/FakePubSub.hpp"
#include "kiro/web/RelayPubSub.hpp"

// Each of these tests needs a process in which nobody has used the factory yet.

namespace kiro::web {
namespace {

using Endpoint = std::shared_ptr<PubSubInterface>;

Endpoint makeFake() { return std::make_shared<test::FakePubSub>(); }

TEST(PubSubFactory, makesOneRelayEndpointByDefaultAndFreshOnesForTheOthers) {
    const auto first = PubSubFactory::makePubSubWithDefault(&makeFake);
    const auto instance = PubSubFactory::pubsubInstance();
    EXPECT_NE(dynamic_cast<RelayPubSub*>(instance.get()), nullptr);
    EXPECT_EQ(instance, PubSubFactory::pubsubInstance());
    const auto second = PubSubFactory::makePubSubWithDefault(&makeFake);
    EXPECT_EQ((std::set{first, instance, second}.size()), 3U);
}

TEST(PubSubFactory, leavesABlockThatFailsBeforeItsFirstUseToTheInterpreter) {
    std::vector<relay::Promise<support::SendResult>> promises(2);
    const auto sender = std::make_shared<support::ScriptedSender>(
        [&promises, next = 0U](auto&&) mutable { return promises[next++].getFuture(); });
    support::payloadOf({4, 5}).sendUsing(sender, "/figure");
    // An endpoint that is made on that thread would end the process.
    const auto fail = [&](std::size_t which) {
        std::thread([&] { promises[which].setValue({false, {}}); }).join();
    };
    {
        const support::LogCapture log("commandsender");
        const auto hidden = kirohost::hideMainContext();
        fail(0);
        EXPECT_EQ(log.texts(), support::Lines{"block for /figure not sent: no TaskRouter"});
    }
    fail(1);
    const support::Recorder client;
    const auto heard = subscribe(PubSubFactory::pubsubInstance(), "/figure", client.callback());
    EXPECT_EQ(kirohost::runPendingTasks(), 1U);
    kirohost::waitForDelivery();
    EXPECT_EQ(client.messagesOn("/figure"), support::Lines{support::fallback("5 0")});
}

TEST(PubSubFactory, givesConcurrentFirstCallersOneEndpoint) {
    constexpr int kThreads = 8;
    std::latch start(kThreads);
    int calls = 0;  // unguarded: the once region is what orders the calls
    PubSubFactory::setPubSubCreationFcn([&] {
        if (++calls == 1) throw std::runtime_error("the first caller's bad luck");
        return makeFake();
    });
    support::Collector<Endpoint> got;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                try {
                    got.add(PubSubFactory::pubsubInstance());
                } catch (const std::runtime_error&) {
                    got.add(nullptr);
                }
            });
        }
    }
    const auto all = got.all();
    EXPECT_EQ(std::ranges::count(all, nullptr), 1);
    EXPECT_EQ((std::set(all.begin(), all.end()).size()), 2U) << "nobody has another";
    EXPECT_EQ(calls, 2);
}

TEST(PubSubFactory, reportsASecondFunctionAndSteersEverybodyOntoItsEndpoint) {
    const support::AssertionCapture assertions;
    const auto own = makeFake();
    PubSubFactory::setPubSubCreationFcn(&makeFake);
    PubSubFactory::setPubSubCreationFcn([own] { return own; });
    EXPECT_EQ(PubSubFactory::makePubSubWithDefault(nullptr), own);
    EXPECT_EQ(PubSubFactory::pubsubInstance(), own);
    ASSERT_EQ(assertions.texts(),
              support::Lines{"src/PubSubFactory:19: fPubSubCreationFcn == nullptr"});
}

}  // namespace
}  // namespace kiro::web
