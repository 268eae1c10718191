#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Buffers.hpp"
#include "Collector.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"
#include "kiro/web/binary/BinaryDataSender.hpp"
#include "relay/Future.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

/// The vocabulary of the tests that handle data blocks.
namespace support {

using kiro::web::binary::DataID;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;
using SendFuture = kiro::web::binary::BinaryDataSenderInterface::SendFuture;

/// The block of `id` and `data` as bytes.
inline std::string blockBytes(std::uint64_t id, const std::string& data = "x") {
    std::string bytes;
    for (unsigned shift = 0; shift < 64; shift += 8) {
        bytes += static_cast<char>((id >> shift) & 0xFFU);
    }
    return bytes + data;
}

/// A block "x" for each of `ids`.
inline kiro::web::binary::BinaryDataPayload payloadOf(const std::vector<std::uint64_t>& ids) {
    kiro::web::binary::BinaryDataPayload payload;
    for (const auto id : ids) payload.addDataToPayloadInternalWithID("x", 1, DataID(id));
    return payload;
}

/// The message that stands for a block "x".
inline std::string fallback(const std::string& id, const std::string& base64 = "eA==") {
    return R"({"cmd":"binarydata","data":{")" + id + R"(":")" + base64 + "\"}}";
}

inline SendFuture answer(bool delivered) {
    return relay::makeReadyFuture(SendResult{delivered, {}});
}

/// A sender whose answers the test gives, with a record of what it was asked. Any thread.
class ScriptedSender : public kiro::web::binary::test::NullBinaryDataSender {
  public:
    using Script = std::function<SendFuture(DataBuffer&&)>;

    explicit ScriptedSender(Script script = [](DataBuffer&&) { return answer(true); })
        : fScript(std::move(script)) {}

    using NullBinaryDataSender::send;
    SendFuture send(DataBuffer&& block) override {
        blocks.add(bytesOf(block));
        return fScript(std::move(block));
    }
    void warnAboutSendFailure(const std::string& channel) override { warnings.add(channel); }

    Collector<std::string> blocks;
    Collector<std::string> warnings;

  private:
    const Script fScript;
};

}  // namespace support
