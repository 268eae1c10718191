#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "Counters.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace kirogateway {

/// One block on its way to all pages that take part. It is delivered when every one of them has
/// left saying that it has it, and given back if one left without, or none took part. Any thread.
class Transfer {
  public:
    Transfer(relay::binary::experimental::Delivery delivery,
             std::shared_ptr<Counters> counters) noexcept
        : fDelivery(std::move(delivery)), fCounters(std::move(counters)) {}
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() = default;

    /// The block, header included. REQUIRES: called by somebody who joined and has not left.
    [[nodiscard]] std::string_view bytes() const noexcept {
        const auto& block = fDelivery.block();
        return {block.data(), block.size()};
    }

    /// REQUIRES: called before `close`.
    void join() noexcept { fUnfinished.fetch_add(1); }

    /// A page that joined is done with the block and touches its bytes no more. The last one
    /// completes the engine's future on this thread, which may publish.
    /// REQUIRES: no lock held.
    void leave(bool hasBlock) { step(hasBlock); }

    /// Nobody joins any more. REQUIRES: called once; no lock held.
    void close(bool anybodyJoined) { step(anybodyJoined); }

  private:
    void step(bool hasBlock) {
        if (!hasBlock) fIsWhole = false;
        if (fUnfinished.fetch_sub(1) != 1) return;
        if (fIsWhole) {
            ++fCounters->blocksDelivered;
            fDelivery.deliver();
        } else {
            ++fCounters->blocksGivenBack;
            fDelivery.fail();
        }
    }

    relay::binary::experimental::Delivery fDelivery;
    const std::shared_ptr<Counters> fCounters;
    std::atomic<std::size_t> fUnfinished{1};  ///< the pages, and whoever lets them join
    std::atomic<bool> fIsWhole{true};
};

}  // namespace kirogateway
