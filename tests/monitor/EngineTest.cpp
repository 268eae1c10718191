#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "Contract.hpp"
#include "client/HeadlessClient.hpp"
#include "client/ReferenceData.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "engine/PickReceiver.hpp"
#include "engine/Schedule.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kirohost/Controls.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace {

using namespace monitor;
using namespace std::chrono_literals;

TEST(Schedule, LetsFramesCatchUpButNotRace) {
    const engine::Schedule::Time start(1h);
    engine::Schedule schedule(start, 2);
    EXPECT_EQ(schedule.due(0), start);
    EXPECT_EQ(schedule.due(60), start + 1s);
    schedule.begin(60, start + 1250ms);
    EXPECT_EQ(schedule.due(120), start + 2s);
    schedule.begin(60, start + 1251ms);
    EXPECT_EQ(schedule.due(120), start + 2251ms);
}

// Pages send what they like: a shorter block must not be read beyond its end.
TEST(PickReceiver, TakesTheLatestBlockOfTwoNumbersAndNoOther) {
    engine::PickReceiver receiver;
    relay::binary::experimental::ClientEnd end(contract::kPickChannel, [](auto) {});
    const auto send = [&end](std::size_t size, float longitude) {
        std::vector<char> bytes(24);
        const std::array<float, 2> place{longitude, 50};
        std::memcpy(bytes.data() + 8, place.data(), sizeof place);
        auto* block = static_cast<char*>(std::malloc(size));
        ASSERT_NE(block, nullptr);
        std::memcpy(block, bytes.data(), size);
        end.send(contract::kPickChannel, {block, size, size});
    };
    for (const std::size_t size : {1U, 8U, 15U, 17U, 24U}) send(size, 1);
    EXPECT_FALSE(receiver.take());
    send(16, 1);
    send(16, 2);
    const auto pick = receiver.take();
    ASSERT_TRUE(pick);
    EXPECT_EQ(pick->longitude, 2);
    EXPECT_EQ(pick->latitude, 50);
    EXPECT_FALSE(receiver.take());
}

/// What comes of one frame whose client reports so many errors before it answers.
engine::EngineResult drawOneFrame(int errors) {
    const engine::DataSet data = engine::readDataSet(MONITOR_DATA_DIR);
    const client::ReferenceData reference = client::readReferenceData(MONITOR_DATA_DIR);
    client::HeadlessClient page(reference, {});
    engine::Engine::Hooks hooks;
    hooks.waiting = [&, announced = false]() mutable {
        if (std::exchange(announced, true)) return;
        for (int i = 0; i < errors; ++i) {
            kiro::web::StringPayload error("boom");
            kiro::web::PubSubFactory::pubsubInstance()->publish(contract::kErrorChannel, error);
        }
        page.announce();
    };
    engine::Engine engine(data, nullptr, hooks);
    const auto result = engine.run({.frames = 1, .duration = {}, .speed = 0});
    kirohost::waitForDelivery();
    page.finish();
    return result;
}

TEST(Engine, CountsAFrameAsFailedIfTheClientReportedAnError) {
    const auto good = drawOneFrame(0);
    EXPECT_EQ(good.complete, 1U);
    EXPECT_EQ(good.failed, 0U);
    EXPECT_FALSE(good.interrupted);
    EXPECT_EQ(good.traffic.commands, 0U) << "counted, though nobody wants to know";
    const auto bad = drawOneFrame(2);
    EXPECT_EQ(bad.complete, 0U);
    EXPECT_EQ(bad.failed, 1U);
}

}  // namespace
