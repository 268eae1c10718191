#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "Bus.hpp"
#include "ChannelList.hpp"
#include "Context.hpp"
#include "PageMessages.hpp"
#include "View.hpp"

namespace kirogateway {

/// The way from the pages to the engine: what they publish, if they may, and what is announced of
/// them. The gateway's thread.
class Inbound {
  public:
    explicit Inbound(std::shared_ptr<Context> context);

    /// Where everything goes.
    /// REQUIRES: called once, before a page is let in; `bus` outlives all pages.
    void connect(Bus& bus) noexcept;

    /// Publishes, if a page may do that on this channel; returns whether. Throws std::bad_alloc,
    /// and what the bus throws.
    [[nodiscard]] bool publish(View& view, wire::Publish&& message);
    /// As `publish`, for a block.
    [[nodiscard]] bool publishBlock(const std::string& channel, std::string_view block);
    [[nodiscard]] bool hasRoom() const noexcept { return fBus == nullptr || fBus->hasRoom(); }
    /// What pages have to know of clocks. REQUIRES: it is connected.
    [[nodiscard]] wire::Clocks clocks() const noexcept;
    /// Tells of a view; what is thrown is logged.
    void announce(wire::ViewKind kind, const View::Identity& view) noexcept;
    /// Tells how many pages are there.
    void pages(std::size_t count) noexcept {
        if (fBus != nullptr) fBus->pages(count);  // a site that lets nobody in may have none
    }

  private:
    const std::shared_ptr<Context> fContext;
    const ChannelList fMayPublish;
    Bus* fBus = nullptr;
    relay::TransportLink* fTexts = nullptr;  ///< the bus's, asked for once
};

}  // namespace kirogateway
