#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string_view>
#include <utility>

#include "Budget.hpp"
#include "Counters.hpp"
#include "checked/Require.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace kirogateway {

/// One block on its way to all pages that take part. It is delivered when every one of them has
/// left saying that it has it, and given back if one left without, or none took part. It counts
/// once, however many pages take part. Any thread.
class Transfer {
  public:
    Transfer(relay::binary::experimental::Delivery delivery, std::shared_ptr<Counters> counters,
             Charge charge) noexcept
        : fDelivery(std::move(delivery)),
          fCounters(std::move(counters)),
          fCharge(std::move(charge)) {}
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() = default;

    /// The block, header included. REQUIRES: called by somebody who joined and has not left.
    [[nodiscard]] std::string_view bytes() const noexcept {
        const auto& block = fDelivery.block();
        return {block.data(), block.size()};
    }

    /// REQUIRES: called before `close`.
    void join() noexcept {
        [[maybe_unused]] const auto before = fUnfinished.fetch_add(1);
        KIROWEB_REQUIRE(before > 0);
    }

    /// A page that joined is done with the block and touches its bytes no more. The last one
    /// completes the engine's future on this thread, which may publish.
    /// REQUIRES: no lock of the gateway's held.
    void leave(bool hasBlock) noexcept { step(hasBlock); }

    /// Nobody joins any more. REQUIRES: called once; no lock of the gateway's held.
    void close(bool anybodyJoined) noexcept { step(anybodyJoined); }

  private:
    void step(bool hasBlock) noexcept {
        if (!hasBlock) fIsWhole = false;
        const auto before = fUnfinished.fetch_sub(1);
        KIROWEB_REQUIRE(before > 0);
        if (before != 1) return;
        fCharge = {};  // before an engine is told, which may send the next one at once
        try {
            if (fIsWhole) {
                ++fCounters->blocksDelivered;
                fDelivery.deliver();
            } else {
                ++fCounters->blocksGivenBack;
                fDelivery.fail();
            }
        } catch (...) {  // no memory for the answer: the delivery gives the block back as it goes
        }
    }

    relay::binary::experimental::Delivery fDelivery;
    const std::shared_ptr<Counters> fCounters;
    Charge fCharge;
    std::atomic<std::size_t> fUnfinished{1};  ///< the pages, and whoever lets them join
    std::atomic<bool> fIsWhole{true};
};

struct OutboxEntry;

/// A page's part in a transfer.
struct PageBlock {
    std::shared_ptr<Transfer> transfer;
    std::uint16_t channel = 0;
    std::uint32_t id = 0;
    std::uint64_t number = 0;  ///< of its message; 0: none yet
    std::size_t size = 0;
    std::size_t sent = 0;  ///< bytes in pieces that were written
    std::chrono::steady_clock::time_point since;
    bool isUnderWay = false;
    OutboxEntry* entry = nullptr;  ///< its place in the order; null when that was acknowledged
    bool isDelivered = false;      ///< what the page says when it leaves
};

/// Blocks that a page left, which have yet to be told so with no lock held. Moving a block from one
/// list to another takes no memory.
using PageBlocks = std::list<PageBlock>;

/// Tells the transfers. REQUIRES: no lock of the gateway's held.
inline void leaveAll(PageBlocks& blocks) noexcept {
    for (; !blocks.empty(); blocks.pop_front()) {
        blocks.front().transfer->leave(blocks.front().isDelivered);
    }
}

}  // namespace kirogateway
