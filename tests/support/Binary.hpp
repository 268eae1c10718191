#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Collector.hpp"
#include "kiro/web/binary/BinaryDataSender.hpp"
#include "relay/Future.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/common/DataBuffer.hpp"

/// The vocabulary of the tests that handle data blocks.
namespace support {

using kiro::web::binary::DataID;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;
using SendFuture = kiro::web::binary::BinaryDataSenderInterface::SendFuture;

inline DataBuffer bufferOf(const std::string& bytes) {
    auto* data = static_cast<char*>(std::malloc(bytes.size() + 1));
    bytes.copy(data, bytes.size());
    return {data, bytes.size() + 1, bytes.size()};
}

inline std::string bytesOf(const DataBuffer& block) {
    return block.empty() ? std::string() : std::string(block.data(), block.size());
}

/// The block of `id` and `data` as bytes.
inline std::string blockBytes(std::uint64_t id, const std::string& data) {
    std::string bytes;
    for (unsigned shift = 0; shift < 64; shift += 8) {
        bytes += static_cast<char>((id >> shift) & 0xFFU);
    }
    return bytes + data;
}

inline SendFuture answer(bool delivered) {
    return relay::makeReadyFuture(SendResult{delivered, {}});
}

/// A sender whose answers the test gives, with a record of what it was asked. Any thread.
class ScriptedSender : public kiro::web::binary::BinaryDataSenderInterface {
  public:
    using Script = std::function<SendFuture(DataBuffer&&)>;

    explicit ScriptedSender(Script script = nullptr) : fScript(std::move(script)) {}

    SendFuture send(DataBuffer&& block) override {
        blocks.add(bytesOf(block));
        return fScript ? fScript(std::move(block)) : answer(true);
    }
    SendFuture send(DataID id, const char* data, std::size_t length) override {
        return send(bufferOf(blockBytes(id.value(), std::string(data, length))));
    }
    void warnAboutSendFailure(const std::string& channel) override { warnings.add(channel); }
    void warnAboutOOMFailure() override { warnings.add("out of memory"); }

    Collector<std::string> blocks;
    Collector<std::string> warnings;

  private:
    const Script fScript;
};

/// Has `createBinaryDataSender` answer with `create`, while it lives.
class ScopedSenderCreation {
  public:
    explicit ScopedSenderCreation(kiro::web::binary::test::BinaryDataSenderCreationFunction create)
        : fBefore(kiro::web::binary::test::RegisterBinaryDataSenderCreationFunction(
              std::move(create))) {}
    ~ScopedSenderCreation() {
        kiro::web::binary::test::RegisterBinaryDataSenderCreationFunction(std::move(fBefore));
    }
    ScopedSenderCreation(const ScopedSenderCreation&) = delete;
    ScopedSenderCreation& operator=(const ScopedSenderCreation&) = delete;

  private:
    kiro::web::binary::test::BinaryDataSenderCreationFunction fBefore;
};

}  // namespace support
