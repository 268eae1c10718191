#include "kiro/web/CommandSenderInterface.hpp"

#include <utility>

#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace kiro::web {

namespace {

constexpr std::size_t kRoom = 100;

/// Room for 100 more. With a capacity below 100, which a change of the switch leaves behind, the
/// difference wraps round and the vector grows by itself; from 100 on nearly every call reserves
/// again, so that a list which lives as long as its figure is never much larger than it must be.
void makeRoom(std::vector<std::uint64_t>& sizes) {
    if (sizes.capacity() - kRoom < sizes.size()) sizes.reserve(sizes.size() + kRoom);
}

}  // namespace

struct CommandSenderInterface::Impl {
    Impl() {
        fPublishSizes.reserve(kRoom);
        fBinarySizes.reserve(kRoom);
    }

    bool fSizeStatsEnabled = false;
    std::vector<std::uint64_t> fPublishSizes;
    std::vector<std::uint64_t> fBinarySizes;
};

CommandSenderInterface::CommandSenderInterface() : fImpl(std::make_unique<Impl>()) {}

CommandSenderInterface::~CommandSenderInterface() = default;

bool CommandSenderInterface::queryCommandSenderReadyStatus() const { return false; }
bool CommandSenderInterface::queryUsingFastBinary() const { return false; }
bool CommandSenderInterface::queryUsingBinary() const { return false; }

void CommandSenderInterface::sendCommand(const std::string& command, JSONPayload&& payload) {
    payload.addDataToPayload("cmd", command);
    if (fImpl->fSizeStatsEnabled) {
        makeRoom(fImpl->fPublishSizes);
        fImpl->fPublishSizes.push_back(payload.convertToString().size());
    }
    doSendCommand(std::move(payload));
}

void CommandSenderInterface::sendBinaryData(binary::BinaryDataPayload&& payload) {
    if (fImpl->fSizeStatsEnabled) {
        makeRoom(fImpl->fBinarySizes);
        fImpl->fBinarySizes.push_back(payload.size());
    }
    doSendBinaryData(std::move(payload));
}

void CommandSenderInterface::sendBinaryDataAsync(binary::BinaryDataPayload&& payload) {
    // No room is made here, unlike above: an asynchronous caller does not wait for a list to move.
    if (fImpl->fSizeStatsEnabled) fImpl->fBinarySizes.push_back(payload.size());
    doSendBinaryDataAsync(std::move(payload));
}

void CommandSenderInterface::setSizeStatsEnabled(bool on) {
    if (on == fImpl->fSizeStatsEnabled) return;
    fImpl->fSizeStatsEnabled = on;
    for (auto* sizes : {&fImpl->fPublishSizes, &fImpl->fBinarySizes}) {
        sizes->clear();
        sizes->shrink_to_fit();
    }
}

const std::vector<std::uint64_t>& CommandSenderInterface::getPublishSizeInBytes() const {
    return fImpl->fPublishSizes;
}

const std::vector<std::uint64_t>& CommandSenderInterface::getBinarySizeInBytes() const {
    return fImpl->fBinarySizes;
}

}  // namespace kiro::web
