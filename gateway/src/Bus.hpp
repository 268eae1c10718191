#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "PageMessages.hpp"
#include "View.hpp"
#include "relay/Relay.hpp"

namespace kirogateway {

/// Where what pages say goes, and what is told of them: the process that the gateway is in, or an
/// engine on another machine. The gateway's thread, with no lock of the gateway's held.
class Bus {
  public:
    Bus() = default;
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    virtual ~Bus() = default;

    /// Takes texts, as a host's link does. It lives as long as the bus.
    [[nodiscard]] virtual relay::TransportLink& texts() noexcept = 0;
    /// Carries a block, which is copied. Returns false if it takes no blocks. Throws
    /// std::bad_alloc.
    [[nodiscard]] virtual bool send(const std::string& channel, std::string_view block) = 0;
    /// A view has come, or has come back. What is thrown is logged.
    virtual void announce(wire::ViewKind kind, const View::Identity& view) = 0;
    /// Whether pages may say more: false while too much of what they said has not been taken.
    [[nodiscard]] virtual bool hasRoom() const noexcept { return true; }
    /// What the clocks say; of an engine in this process it is one and the same.
    [[nodiscard]] virtual wire::Clocks clocks() const noexcept {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return {std::chrono::duration_cast<std::chrono::microseconds>(now), {}, {}, true};
    }
    /// So many pages are there now.
    virtual void pages(std::size_t count) noexcept = 0;
};

}  // namespace kirogateway
