#include "engine/PickReceiver.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Contract.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace {

using namespace monitor;

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

}  // namespace
