#include "engine/PickReceiver.hpp"

#include <array>
#include <cstring>
#include <utility>

#include "Contract.hpp"
#include "annotated/Mutex.hpp"
#include "kiro/web/binary/BinaryDataReceiver.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"
#include "relay/common/DataBuffer.hpp"

namespace monitor::engine {

using namespace kiro::web::binary;

namespace {

constexpr std::size_t kHeader = 8;

}  // namespace

class PickReceiver::Mailbox {
  public:
    /// Any thread.
    void put(const relay::common::DataBuffer& block) EXCLUDES_LOCK(fMutex) {
        std::array<float, 2> place{};
        if (block.size() != kHeader + sizeof place) return;
        std::memcpy(place.data(), block.data() + kHeader, sizeof place);
        const annotated::Lock lock(fMutex);
        fPick = Pick{.longitude = place[0], .latitude = place[1]};
    }

    std::optional<Pick> take() EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return std::exchange(fPick, std::nullopt);
    }

  private:
    annotated::Mutex fMutex;
    std::optional<Pick> fPick GUARDED_BY(fMutex);
};

PickReceiver::PickReceiver() : fMailbox(std::make_shared<Mailbox>()) {
    BinaryStreamLifeCycle::initBinaryStream(contract::kPickChannel);
    auto& slot =
        IdToBinaryDataReceiver::getInstance().getOrCreateStreamChannel(contract::kPickChannel);
    if (slot == nullptr) slot = createBinaryDataReceiver(contract::kPickChannel);
    fReceiver = slot;
    fReceiver->receive(
        [mailbox = fMailbox](relay::common::DataBuffer&& block) { mailbox->put(block); });
}

PickReceiver::~PickReceiver() {
    try {
        fReceiver->receive({});
        BinaryStreamLifeCycle::destroyBinaryDataReceiver(contract::kPickChannel);
        BinaryStreamLifeCycle::destroyBinaryStream(contract::kPickChannel);
    } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor has nobody to tell
    }
}

std::optional<Pick> PickReceiver::take() { return fMailbox->take(); }

}  // namespace monitor::engine
