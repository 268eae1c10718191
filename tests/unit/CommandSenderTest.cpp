#include "kiro/web/CommandSenderInterface.hpp"

#include "Binary.hpp"
#include "Fixture.hpp"
#include "kiro/web/ExportCommandSender.hpp"

namespace {

using namespace kiro::web;
using namespace kiro::web::binary;
using namespace support;
using Sizes = std::vector<std::uint64_t>;

TEST(ExportCommandSender, RecordsEveryCommandAndBlockAsOneText) {
    ExportCommandSender sender;
    sender.sendCommand("draw", {});
    sender.setEnable(false);  // has no effect on the recording
    EXPECT_FALSE(sender.isEnabled());
    JSONPayload stamped;
    stamped.addDataToPayload("cmd", "its own");
    sender.sendCommand("ignored", std::move(stamped));
    sender.sendBinaryData(payloadOf({4, 6}));
    sender.sendBinaryDataAsync(payloadOf({5}));
    sender.setBinaryChannelName("/binary");
    sender.removeFinishedAsyncTasksFromCache();
    EXPECT_EQ(
        sender.getCommandsAsStrings(),
        (Lines{R"({"cmd":"draw"})", R"({"cmd":"its own"})",
               R"({"cmd":"binarydata","data":{"4 0":"eA==","6 0":"eA=="}})", fallback("5 0")}));
    EXPECT_FALSE(sender.queryCommandSenderReadyStatus() || sender.queryUsingBinary() ||
                 sender.queryUsingFastBinary());
    sender.reset();
    EXPECT_TRUE(sender.getCommandsAsStrings().empty());
}

TEST(SizeStatistics, CountTextsAndBlocksWhileTheyAreOn) {
    ExportCommandSender sender;
    for (const bool on : {false, true}) {
        sender.setSizeStatsEnabled(on);
        sender.sendCommand("draw", {});
        sender.sendBinaryData(payloadOf({4, 5}));
        sender.sendBinaryDataAsync({});
        sender.setSizeStatsEnabled(on);
        // A block counts as a block only, also where its sender makes a text of it.
        const auto oneText = sender.getCommandsAsStrings().front().size();
        EXPECT_EQ(sender.getPublishSizeInBytes(), on ? Sizes{oneText} : Sizes());
        EXPECT_EQ(sender.getBinarySizeInBytes(), on ? (Sizes{18, 0}) : Sizes());
    }
}

}  // namespace
