#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Bus.hpp"
#include "GatewayEnd.hpp"
#include "Transfer.hpp"
#include "annotated/Mutex.hpp"

namespace link_tool {

/// The engine on another machine, as pages of its site reach it.
class LinkBus final : public kirogateway::Bus, public relay::TransportLink {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// REQUIRES: called before pages come; `end` outlives them.
    void connect(kirolink::GatewayEnd& end) noexcept { fEnd = &end; }

    [[nodiscard]] relay::TransportLink& texts() noexcept override { return *this; }
    /// Throws std::length_error when the engine has not had too much of it.
    void deliver(const std::string& channel, relay::Publication::Text text,
                 std::shared_ptr<const void> ticket) override;
    [[nodiscard]] bool send(const std::string& channel, std::string_view block) override;
    [[nodiscard]] bool hasRoom() const noexcept override { return fEnd->hasRoomForPages(); }
    [[nodiscard]] kirogateway::wire::Clocks clocks() const noexcept override;
    void announce(kirogateway::wire::ViewKind kind,
                  const kirogateway::View::Identity& view) override;
    void pages(std::size_t count) noexcept override;

    // --- Any thread ---

    [[nodiscard]] std::size_t pagesThere() const noexcept { return fPages; }
    /// Lets pages speak again that had to wait for the engine. To be called now and then.
    void letGo() noexcept;

  private:
    kirolink::GatewayEnd* fEnd = nullptr;
    std::atomic<std::size_t> fPages{0};
    annotated::Mutex fMutex;
    /// Of what was said while much waited: whoever holds too many of them is not read from.
    std::deque<std::shared_ptr<const void>> fTickets GUARDED_BY(fMutex);
};

/// A block of an engine on another machine.
class LinkTransfer final : public kirogateway::Transfer {
  public:
    LinkTransfer(std::shared_ptr<const std::string> block,
                 std::unique_ptr<kirolink::BlockTicket> ticket,
                 std::shared_ptr<kirogateway::Counters> counters) noexcept
        : Transfer(*block, std::move(counters)),
          fBlock(std::move(block)),
          fTicket(std::move(ticket)) {}

  private:
    void finish(Outcome outcome) override;

    const std::shared_ptr<const std::string> fBlock;
    const std::unique_ptr<kirolink::BlockTicket> fTicket;
};

}  // namespace link_tool
