#include "HostBus.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace kirogateway {

HostBus::HostBus(relay::TransportLink& link, relay::binary::experimental::ClientEnd* end,
                 std::shared_ptr<const Context> context) noexcept
    : fLink(link), fEnd(end), fContext(std::move(context)) {}

bool HostBus::send(const std::string& channel, std::string_view block) {
    if (fEnd == nullptr) return false;
    const auto capacity = std::max<std::size_t>(block.size(), 1);
    auto* bytes = static_cast<char*>(std::malloc(capacity));
    if (bytes == nullptr) throw std::bad_alloc();
    const relay::common::DataBuffer buffer(bytes, capacity, block.size());
    if (!block.empty()) std::memcpy(bytes, block.data(), block.size());
    fEnd->send(channel, buffer);
    return true;
}

void HostBus::announce(wire::ViewKind kind, const View::Identity& view) {
    const auto& options = fContext->options;
    const auto& channel =
        kind == wire::ViewKind::kReturn ? options.reconnectChannel : options.newViewChannel;
    if (channel.empty()) return;
    auto text =
        std::make_shared<const std::string>(wire::announcementText(kind, view.count, view.client));
    fLink.deliver(channel, std::move(text), nullptr);
}

}  // namespace kirogateway
