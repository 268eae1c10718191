#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "ChannelList.hpp"
#include "Context.hpp"
#include "PageMessages.hpp"
#include "View.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace kirogateway {

/// The way from the pages into the process: what they publish, and what is announced of them. The
/// gateway's thread.
class Inbound {
  public:
    explicit Inbound(std::shared_ptr<Context> context);

    /// Where messages and blocks go. `end` may be null: pages send no blocks then.
    /// REQUIRES: called before the gateway's thread runs; both outlive that.
    void connect(relay::TransportLink& link, relay::binary::experimental::ClientEnd* end) noexcept;

    /// Publishes, if a page may do that on this channel; returns whether. Throws std::bad_alloc.
    [[nodiscard]] bool publish(View& view, wire::Publish&& message);
    /// As `publish`, for a block.
    [[nodiscard]] bool publishBlock(const std::string& channel, std::string_view block);
    /// Tells the process of a view; what is thrown is logged. An empty channel is nobody's.
    void announce(const std::string& channel, wire::ViewKind kind,
                  const View::Identity& view) noexcept;

  private:
    const std::shared_ptr<Context> fContext;
    const ChannelList fMayPublish;
    relay::TransportLink* fLink = nullptr;
    relay::binary::experimental::ClientEnd* fEnd = nullptr;
};

}  // namespace kirogateway
