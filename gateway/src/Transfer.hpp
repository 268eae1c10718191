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
/// once, however many pages take part. Who waits for the answer is told by a derived class. Any
/// thread.
class Transfer {
  public:
    enum class Outcome : std::uint8_t {
        kDelivered,
        kRefused,  ///< one page did not take it, or left without it
        kNobody,   ///< there was no page to take it
    };

    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    virtual ~Transfer() = default;

    /// The block, header included. REQUIRES: called by somebody who joined and has not left.
    [[nodiscard]] std::string_view bytes() const noexcept { return fBytes; }

    /// Counts what it takes. REQUIRES: called before `close`.
    void charge(Charge charge) noexcept { fCharge = std::move(charge); }

    /// REQUIRES: called before `close`.
    void join() noexcept {
        [[maybe_unused]] const auto before = fUnfinished.fetch_add(1);
        KIROWEB_REQUIRE(before > 0);
    }

    /// A page that joined is done with the block and touches its bytes no more. The last one
    /// completes the engine's future on this thread, which may publish.
    /// REQUIRES: no lock of the gateway's held.
    void leave(bool hasBlock) noexcept { step(hasBlock ? Outcome::kDelivered : Outcome::kRefused); }

    /// Nobody joins any more. `outcome`: what it is if all who joined leave with the block;
    /// kNobody: nobody has joined. REQUIRES: called once; no lock of the gateway's held.
    void close(Outcome outcome) noexcept { step(outcome); }

  protected:
    /// REQUIRES: `bytes` stay valid until `finish` is called.
    Transfer(std::string_view bytes, std::shared_ptr<Counters> counters) noexcept
        : fBytes(bytes), fCounters(std::move(counters)) {}

  private:
    /// Called once, by the last one who leaves. What it throws is no more than a lack of memory,
    /// and then the derived class answers as it goes.
    virtual void finish(Outcome outcome) = 0;

    void step(Outcome outcome) noexcept {
        if (outcome != Outcome::kDelivered) fOutcome = outcome;
        const auto before = fUnfinished.fetch_sub(1);
        KIROWEB_REQUIRE(before > 0);
        if (before != 1) return;
        fCharge = {};  // before an engine is told, which may send the next one at once
        const Outcome last = fOutcome;
        ++(last == Outcome::kDelivered ? fCounters->blocksDelivered : fCounters->blocksGivenBack);
        try {
            finish(last);
        } catch (...) {
        }
    }

    const std::string_view fBytes;
    const std::shared_ptr<Counters> fCounters;
    Charge fCharge;
    std::atomic<std::size_t> fUnfinished{1};  ///< the pages, and whoever lets them join
    std::atomic<Outcome> fOutcome{Outcome::kDelivered};
};

/// A block of this process.
class HostTransfer final : public Transfer {
  public:
    HostTransfer(relay::binary::experimental::Delivery delivery,
                 std::shared_ptr<Counters> counters) noexcept
        : Transfer({delivery.block().data(), delivery.block().size()}, std::move(counters)),
          fDelivery(std::move(delivery)) {}

  private:
    void finish(Outcome outcome) override {
        outcome == Outcome::kDelivered ? fDelivery.deliver() : fDelivery.fail();
    }

    relay::binary::experimental::Delivery fDelivery;
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
