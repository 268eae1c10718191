#include "kiro/web/CommandSenderInterface.hpp"

#include <gtest/gtest.h>

#include <type_traits>

#include "Fixture.hpp"
#include "kiro/web/ExportCommandSender.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace {

using kiro::web::CommandSenderInterface;
using kiro::web::ExportCommandSender;
using kiro::web::JSONPayload;
using kiro::web::binary::BinaryDataPayload;
using kiro::web::binary::DataID;
using support::Lines;
using Sizes = std::vector<std::uint64_t>;

static_assert(std::is_nothrow_destructible_v<CommandSenderInterface>);
static_assert(!std::is_copy_constructible_v<ExportCommandSender>);

BinaryDataPayload blockOf(const std::string& data, std::uint64_t id = 4) {
    BinaryDataPayload payload;
    payload.addDataToPayloadInternalWithID(data.data(), data.size(), DataID(id));
    return payload;
}

JSONPayload numbered(int number) {
    JSONPayload payload;
    payload.addDataToPayload("n", number);
    return payload;
}

TEST(ExportCommandSender, RecordsEveryCommandAndBlockAsOneText) {
    ExportCommandSender sender;
    sender.sendCommand("draw", numbered(1));
    sender.setEnable(false);  // has no effect on the recording
    EXPECT_FALSE(sender.isEnabled());
    JSONPayload stamped;
    stamped.addDataToPayload("cmd", "its own");
    sender.sendCommand("ignored", std::move(stamped));
    sender.sendBinaryData(blockOf("foo"));
    sender.sendBinaryDataAsync(blockOf("fo", 5));
    sender.sendBinaryData({});
    sender.setBinaryChannelName("/binary");
    sender.removeFinishedAsyncTasksFromCache();
    EXPECT_EQ(sender.getCommandsAsStrings(),
              (Lines{R"({"n":1,"cmd":"draw"})", R"({"cmd":"its own"})",
                     R"({"cmd":"binarydata","data":{"4 0":"Zm9v"}})",
                     R"({"cmd":"binarydata","data":{"5 0":"Zm8="}})", "{}"}));
    EXPECT_FALSE(sender.queryCommandSenderReadyStatus() || sender.queryUsingBinary() ||
                 sender.queryUsingFastBinary());
    sender.reset();
    EXPECT_TRUE(sender.getCommandsAsStrings().empty());
}

TEST(SizeStatistics, CountTextsAndBlocksWhileTheyAreOn) {
    ExportCommandSender sender;
    const auto sendOneOfEach = [&sender] {
        sender.sendCommand("draw", numbered(1));
        sender.sendBinaryData(blockOf("foo"));
        sender.sendBinaryDataAsync(blockOf(""));
    };
    sendOneOfEach();
    EXPECT_TRUE(sender.getPublishSizeInBytes().empty() && sender.getBinarySizeInBytes().empty());

    sender.setSizeStatsEnabled(true);
    sendOneOfEach();
    const Sizes oneText{sender.getCommandsAsStrings().front().size()};
    // A block counts as a block only, also where its sender makes a text of it.
    EXPECT_EQ(sender.getPublishSizeInBytes(), oneText);
    EXPECT_EQ(sender.getBinarySizeInBytes(), (Sizes{11, 8}));
    sender.setSizeStatsEnabled(true);
    EXPECT_EQ(sender.getPublishSizeInBytes(), oneText) << "switched to what it is";

    for (const bool on : {false, true}) {
        sender.setSizeStatsEnabled(on);
        EXPECT_EQ(sender.getPublishSizeInBytes().capacity(), 0U) << on;
        EXPECT_EQ(sender.getBinarySizeInBytes().capacity(), 0U) << on;
    }
}

TEST(SizeStatistics, MakeRoomForAHundredMoreOnlyFromACapacityOfAHundredOn) {
    ExportCommandSender sender;
    EXPECT_EQ(sender.getPublishSizeInBytes().capacity(), 100U);
    EXPECT_EQ(sender.getBinarySizeInBytes().capacity(), 100U);
    struct {
        const char* what;
        std::function<void()> send;
        const Sizes& sizes;
        std::size_t roomAfter66;
    } const cases[] = {
        {"command", [&] { sender.sendCommand("x", {}); }, sender.getPublishSizeInBytes(), 165},
        {"block", [&] { sender.sendBinaryData({}); }, sender.getBinarySizeInBytes(), 165},
        {"asynchronous block", [&] { sender.sendBinaryDataAsync({}); },
         sender.getBinarySizeInBytes(), 128},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        sender.setSizeStatsEnabled(false);
        sender.setSizeStatsEnabled(true);
        while (c.sizes.size() < 65) c.send();
        EXPECT_EQ(c.sizes.capacity(), 128U) << "the vector's own growth";
        c.send();
        EXPECT_EQ(c.sizes.capacity(), c.roomAfter66);
    }
}

}  // namespace
