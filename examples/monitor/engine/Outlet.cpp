#include "engine/Outlet.hpp"

#include <bit>
#include <cstddef>
#include <numeric>
#include <utility>

#include "checked/Require.hpp"
#include "kiro/web/CommandSenderInterface.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace monitor::engine {

using kiro::web::CommandSenderInterface;
using kiro::web::JSONPayload;
using kiro::web::binary::BinaryDataPayload;
using kiro::web::binary::DataID;

namespace {

static_assert(std::endian::native == std::endian::little, "blocks are little-endian");

BinaryDataPayload payloadOf(std::span<const float> numbers, DataID id) {
    BinaryDataPayload payload;
    const auto bytes = std::as_bytes(numbers);
    payload.addDataToPayloadInternalWithID(reinterpret_cast<const char*>(bytes.data()),
                                           bytes.size(), id);
    return payload;
}

std::uint64_t sum(const std::vector<std::uint64_t>& sizes) {
    return std::accumulate(sizes.begin(), sizes.end(), std::uint64_t{0});
}

}  // namespace

Outlet::Outlet(Senders senders, bool countsTraffic)
    : fSenders(std::move(senders)), fCountsTraffic(countsTraffic) {
    KIROWEB_REQUIRE(!fSenders.empty());
    if (fCountsTraffic) fSenders.front()->setSizeStatsEnabled(true);
}

void Outlet::command(const std::string& name, const Fill& fill) {
    ++fSequence;
    for (const auto& sender : fSenders) {
        JSONPayload payload;
        payload.addDataToPayload("seq", fSequence);
        fill(payload);
        sender->sendCommand(name, std::move(payload));
    }
}

DataID Outlet::block(std::span<const float> numbers) {
    const DataID id = BinaryDataPayload::createID();
    for (const auto& sender : fSenders) sender->sendBinaryData(payloadOf(numbers, id));
    return id;
}

DataID Outlet::blockAsync(std::span<const float> numbers) {
    const DataID id = BinaryDataPayload::createID();
    for (const auto& sender : fSenders) sender->sendBinaryDataAsync(payloadOf(numbers, id));
    return id;
}

const Traffic& Outlet::countTraffic() {
    if (!fCountsTraffic) return fTraffic;
    CommandSenderInterface& sender = *fSenders.front();
    fTraffic.commands += sender.getPublishSizeInBytes().size();
    fTraffic.commandBytes += sum(sender.getPublishSizeInBytes());
    fTraffic.blocks += sender.getBinarySizeInBytes().size();
    fTraffic.blockBytes += sum(sender.getBinarySizeInBytes());
    // Switching off and on empties the statistics, which would only grow otherwise.
    sender.setSizeStatsEnabled(false);
    sender.setSizeStatsEnabled(true);
    return fTraffic;
}

}  // namespace monitor::engine
