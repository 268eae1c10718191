#include "kiro/web/binary/BinaryDataPayload.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "BinaryEntry.hpp"
#include "Block.hpp"
#include "BlockFallback.hpp"
#include "CHeap.hpp"
#include "bedrock/log/basic_diagnostic_logger.hpp"
#include "encoding/Base64.hpp"
#include "graphics_state/webSwitches.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataSender.hpp"
#include "process/Immortal.hpp"
#include "relay/Future.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"

namespace kiro::web::binary {

using relay::common::DataBuffer;
using SendFuture = BinaryDataSenderInterface::SendFuture;

namespace {

constexpr int kTraceLevel = 8;

/// Immortal: a stream's thread may complete a send while the process exits.
Immortal<bedrock::log::basic_diagnostic_logger> sendLogger("graphics::BinaryDataSend");

/// Writes "BinaryData <id> <event>", the identifier as one number.
void trace(DataID id, const char* event) {
    if (!sendLogger->enabled(kTraceLevel)) return;
    sendLogger->record(kTraceLevel) << "BinaryData " << id.value() << event;
}

void addBase64(JSONPayload& data, DataID id, const DataBuffer& block) {
    data.addDataToPayload(id.convert_to_string(), encoding::encodeBase64(dataOf(block)));
}

/// Runs when the stream has answered for one block, on the stream's thread. Payload, task and
/// command sender may be gone by then.
void onSendCompleted(SendFuture&& completed, BinaryEntry& entry, BinaryDataSenderInterface& sender,
                     const std::string& channel) {
    if (!completed.valid()) throw std::runtime_error("Future state isn't valid!");
    const auto result = completed.get();
    // The host is asked on every completion, whatever the answer: it may count.
    static_cast<void>(warnAboutBinaryChannelFallback());
    if (result.delivered) return;
    if (usingBinaryChannelFallback()) {
        if (auto block = entry.take(); !block.empty()) {
            sendFailedBlock(std::move(block), channel);
            trace(entry.id(), " sendFail");
        }
    }
    if (warnAboutBinaryChannelFallback()) sender.warnAboutSendFailure(channel);
}

void sendOverStream(const std::shared_ptr<BinaryEntry>& entry,
                    const std::shared_ptr<BinaryDataSenderInterface>& sender,
                    const std::string& channel) {
    if (entry->isTaken()) return;
    trace(entry->id(), " send");
    // The entry keeps its own block for the fallback.
    auto block = entry->copy();
    if (block.empty()) return;
    auto future = sender->send(std::move(block));
    if (!future.valid()) throw std::runtime_error("Future state isn't valid!");
    // The sender keeps its stream alive until all of its blocks have been answered.
    future.then([entry, sender, channel](SendFuture&& completed) {
        onSendCompleted(std::move(completed), *entry, *sender, channel);
    });
}

}  // namespace

class BinaryDataPayload::Impl {
  public:
    /// On failure the block is still its caller's.
    void add(DataID id, DataBuffer&& block) {
        try {
            auto& slot = fEntries.emplace_back();
            try {
                slot = std::make_shared<BinaryEntry>(id, std::move(block));
            } catch (...) {
                fEntries.pop_back();
                throw;
            }
        } catch (const std::bad_alloc&) {
            throwOutOfMemory();
        }
    }

    [[nodiscard]] bool isEmpty() const { return fEntries.empty(); }

    [[nodiscard]] std::size_t size() const {
        std::size_t total = 0;
        for (const auto& entry : fEntries) total += entry->size();
        return total;
    }

    DataBuffer extract(DataID id) {
        const auto found = std::find_if(fEntries.begin(), fEntries.end(),
                                        [id](const auto& entry) { return entry->id() == id; });
        if (found == fEntries.end()) return {};
        auto block = (*found)->take();
        fEntries.erase(found);
        return block;
    }

    void convertToJSONPayload(JSONPayload& out) {
        JSONPayload data;
        for (const auto& entry : fEntries) {
            entry->read([&](const DataBuffer& block) { addBase64(data, entry->id(), block); });
        }
        if (!data.isEmpty()) {
            JSONPayload message;
            message.addDataToPayload("cmd", "binarydata");
            message.addDataToPayload("data", data);
            out.takeFields(std::move(message));  // all of them or none
        }
        for (const auto& entry : fEntries) entry->take();
        fEntries.clear();
    }

    void sendUsing(const std::shared_ptr<BinaryDataSenderInterface>& sender,
                   const std::string& channel) {
        for (const auto& entry : fEntries) {
            if (sender != nullptr) {
                sendOverStream(entry, sender, channel);
            } else if (auto block = entry->take(); !block.empty()) {
                sendUsingPubSub(std::move(block), channel);
            }
        }
    }

  private:
    /// Shared with the completions under way.
    std::vector<std::shared_ptr<BinaryEntry>> fEntries;
};

BinaryDataPayload::BinaryDataPayload() : fImpl(std::make_unique<Impl>()) {}
BinaryDataPayload::BinaryDataPayload(BinaryDataPayload&& other) noexcept = default;
BinaryDataPayload::~BinaryDataPayload() = default;

DataID BinaryDataPayload::createID() {
    static std::atomic<std::uint64_t> next = 4;
    return DataID(next.fetch_add(1));
}

DataID BinaryDataPayload::addDataToPayloadInternal(const char* data, std::size_t length) {
    const auto id = createID();
    addDataToPayloadInternalWithID(data, length, id);
    return id;
}

void BinaryDataPayload::addDataToPayloadInternalWithID(const char* data, std::size_t length,
                                                       DataID id) {
    fImpl->add(id, buildBlock(id, data, length));
}

void BinaryDataPayload::addDataToPayload(DataBuffer&& block) {
    if (block.size() < kBlockHeaderSize) {
        throw std::invalid_argument("a data block is at least as long as its 8-byte header");
    }
    const auto id = blockID(block);
    fImpl->add(id, std::move(block));
}

bool BinaryDataPayload::isEmpty() const { return fImpl->isEmpty(); }

bool BinaryDataPayload::isTooBig() const { return false; }

std::size_t BinaryDataPayload::size() const { return fImpl->size(); }

DataBuffer BinaryDataPayload::testExtract(DataID id) { return fImpl->extract(id); }

void BinaryDataPayload::convertToJSONPayload(JSONPayload& out) const {
    try {
        fImpl->convertToJSONPayload(out);
    } catch (const std::bad_alloc&) {
        throwOutOfMemory();
    } catch (const std::length_error&) {
        throwOutOfMemory();
    }
}

void BinaryDataPayload::sendUsing(std::shared_ptr<BinaryDataSenderInterface> sender,
                                  const std::string& channel) {
    fImpl->sendUsing(sender, channel);
}

}  // namespace kiro::web::binary
