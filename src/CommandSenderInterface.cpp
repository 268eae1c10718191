#include "kiro/web/CommandSenderInterface.hpp"

#include <utility>

#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace kiro::web {

namespace {

constexpr std::size_t kRoom = 100;

/// Deliberately as it stands: with a capacity below 100 the difference wraps round and the step
/// is never taken; from 100 on nearly every call reserves again.
void makeRoom(std::vector<std::uint64_t>& sizes) {
    if (sizes.capacity() - kRoom < sizes.size()) sizes.reserve(sizes.size() + kRoom);
}

}  // namespace

struct CommandSenderInterface::Impl {
    Impl() {
        publishSizes.reserve(kRoom);
        binarySizes.reserve(kRoom);
    }

    bool sizeStatsEnabled = false;
    std::vector<std::uint64_t> publishSizes;
    std::vector<std::uint64_t> binarySizes;
};

CommandSenderInterface::CommandSenderInterface() : fImpl(std::make_unique<Impl>()) {}

CommandSenderInterface::~CommandSenderInterface() = default;

bool CommandSenderInterface::queryCommandSenderReadyStatus() const { return false; }
bool CommandSenderInterface::queryUsingFastBinary() const { return false; }
bool CommandSenderInterface::queryUsingBinary() const { return false; }

void CommandSenderInterface::sendCommand(const std::string& command, JSONPayload&& payload) {
    payload.addDataToPayload("cmd", command);
    if (fImpl->sizeStatsEnabled) {
        makeRoom(fImpl->publishSizes);
        fImpl->publishSizes.push_back(payload.convertToString().size());
    }
    doSendCommand(std::move(payload));
}

void CommandSenderInterface::sendBinaryData(binary::BinaryDataPayload&& payload) {
    if (fImpl->sizeStatsEnabled) {
        makeRoom(fImpl->binarySizes);
        fImpl->binarySizes.push_back(payload.size());
    }
    doSendBinaryData(std::move(payload));
}

void CommandSenderInterface::sendBinaryDataAsync(binary::BinaryDataPayload&& payload) {
    // No room is made here, deliberately unlike above.
    if (fImpl->sizeStatsEnabled) fImpl->binarySizes.push_back(payload.size());
    doSendBinaryDataAsync(std::move(payload));
}

void CommandSenderInterface::setSizeStatsEnabled(bool on) {
    if (on == fImpl->sizeStatsEnabled) return;
    fImpl->sizeStatsEnabled = on;
    for (auto* sizes : {&fImpl->publishSizes, &fImpl->binarySizes}) {
        sizes->clear();
        sizes->shrink_to_fit();
    }
}

const std::vector<std::uint64_t>& CommandSenderInterface::getPublishSizeInBytes() const {
    return fImpl->publishSizes;
}

const std::vector<std::uint64_t>& CommandSenderInterface::getBinarySizeInBytes() const {
    return fImpl->binarySizes;
}

}  // namespace kiro::web
