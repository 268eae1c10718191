#pragma once

#include <memory>

#include "Bus.hpp"
#include "Context.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace kirogateway {

/// The host of this process.
class HostBus final : public Bus {
  public:
    /// `end` may be null: pages send no blocks then. REQUIRES: both outlive the bus.
    HostBus(relay::TransportLink& link, relay::binary::experimental::ClientEnd* end,
            std::shared_ptr<const Context> context) noexcept;

    [[nodiscard]] relay::TransportLink& texts() noexcept override { return fLink; }
    [[nodiscard]] bool send(const std::string& channel, std::string_view block) override;
    void announce(wire::ViewKind kind, const View::Identity& view) override;
    void pages(std::size_t /*count*/) noexcept override {}  // `onLastPageGone` tells it

  private:
    relay::TransportLink& fLink;
    relay::binary::experimental::ClientEnd* const fEnd;
    const std::shared_ptr<const Context> fContext;
};

}  // namespace kirogateway
