#include "PayloadSenderTask.hpp"

#include <utility>

#include "Block.hpp"
#include "ProcessWideEndpoint.hpp"
#include "graphics_state/webSwitches.hpp"
#include "kiro/web/PubSubInterface.hpp"

namespace kiro::web {

PayloadSenderTask::~PayloadSenderTask() = default;

JSONPayloadSenderTask::JSONPayloadSenderTask(JSONPayload&& payload)
    : fPayload(std::move(payload)) {}

void JSONPayloadSenderTask::send(ChannelInfo info,
                                 std::shared_ptr<binary::BinaryDataSenderInterface>& sender,
                                 std::string& channel) {
    if (info.usingBinary && usingBinaryChannelForCommands()) {
        const auto text = fPayload.convertToString();
        binary::BinaryDataPayload block;
        block.addDataToPayloadInternalWithID(text.data(), text.size(), binary::kCommandTextID);
        block.sendUsing(sender, channel);
    } else {
        theEndpoint().publish(channel, fPayload);
    }
}

BinaryPayloadSenderTask::BinaryPayloadSenderTask(binary::BinaryDataPayload&& payload)
    : fPayload(std::move(payload)) {}

void BinaryPayloadSenderTask::send(ChannelInfo info,
                                   std::shared_ptr<binary::BinaryDataSenderInterface>& sender,
                                   std::string& channel) {
    // Without a sender the blocks take the fallback over the message service.
    fPayload.sendUsing(info.usingBinary ? sender : nullptr, channel);
}

}  // namespace kiro::web
