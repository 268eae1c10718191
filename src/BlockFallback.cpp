#include "BlockFallback.hpp"

#include <algorithm>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "Block.hpp"
#include "InterpreterTasks.hpp"
#include "InterpreterWarnings.hpp"
#include "ProcessWideEndpoint.hpp"
#include "encoding/Base64.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kiroutils/Logger.hpp"
#include "qvm/messages.hpp"

namespace kiro::web::binary {

using relay::common::DataBuffer;

namespace {

constexpr const char* kSource = "src/BinaryDataPayload";

/// The message of one block; nothing when there is not enough memory for it. It is written at
/// once, not built as JSON: neither identifier nor Base64 has a character to escape, and a block
/// may be large.
std::optional<std::string> fallbackText(DataID id, const DataBuffer& block) {
    constexpr std::string_view kBegin = R"({"cmd":"binarydata","data":{")";
    constexpr std::string_view kBetween = R"(":")";
    constexpr std::string_view kEnd = R"("}})";
    try {
        const auto key = id.convert_to_string();
        const auto data = dataOf(block);
        std::string text;
        text.reserve(kBegin.size() + key.size() + kBetween.size() +
                     encoding::base64Length(data.size()) + kEnd.size());
        text.append(kBegin).append(key).append(kBetween);
        encoding::appendBase64(text, data);
        text.append(kEnd);
        return text;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    } catch (const std::length_error&) {  // longer than a text can be
        return std::nullopt;
    }
}

/// Stands for a block whose message could not be built. Clients expect the identifier's bytes as
/// they lie in memory, read as a zero-terminated text, and not its string form.
JSONPayload outOfMemoryMessage(DataID id) {
    char bytes[kBlockHeaderSize + 1] = {};
    char header[kBlockHeaderSize];
    writeID(id, header);
    std::copy_n(header, kBlockHeaderSize, bytes);
    JSONPayload data;
    data.addDataToPayload(kOutOfMemoryID.convert_to_string(), static_cast<const char*>(bytes));
    JSONPayload message;
    message.addDataToPayload("cmd", "binarydata");
    message.addDataToPayload("data", data);
    return message;
}

}  // namespace

void sendUsingPubSub(DataBuffer&& block, const std::string& channel) {
    DataBuffer owned = std::move(block);
    const DataID id = blockID(owned);
    auto text = fallbackText(id, owned);
    owned = {};
    if (text) {
        StringPayload message(std::move(*text));
        PubSubFactory::pubsubInstance()->publish(channel, message);
    } else {
        postOutOfMemoryWarning(kSource);
        auto notice = outOfMemoryMessage(id);
        PubSubFactory::pubsubInstance()->publish(channel, notice);
    }
}

void sendFailedBlock(DataBuffer&& block, const std::string& channel) {
    if (isEndpointMade() || utIsSignalThread()) {
        sendUsingPubSub(std::move(block), channel);
        return;
    }
    // Shared only because a task's function must be copyable.
    const auto shared = std::make_shared<DataBuffer>(std::move(block));
    auto future = enqueueOnInterpreter(
        graphics_util::getContextQCRID(),
        [shared, channel] { sendUsingPubSub(std::move(*shared), channel); }, kSource);
    if (isNotQueued(future)) {
        kiroutils::Logger::instance().log("commandsender",
                                          "block for " + channel + " not sent: no TaskRouter");
    }
}

}  // namespace kiro::web::binary
