#include "Inbound.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "checked/Require.hpp"

namespace kirogateway {

Inbound::Inbound(std::shared_ptr<Context> context)
    : fContext(std::move(context)), fMayPublish(fContext->options.mayPublish) {}

void Inbound::connect(relay::TransportLink& link,
                      relay::binary::experimental::ClientEnd* end) noexcept {
    KIROWEB_REQUIRE(fLink == nullptr);
    fLink = &link;
    fEnd = end;
}

bool Inbound::publish(View& view, wire::Publish&& message) {
    if (message.channel.size() > wire::kMaxChannelName) return false;
    if (!fMayPublish.matches(message.channel)) return false;
    auto entry = view.backlog()->add(std::move(message.text), fContext->memory);
    fLink->deliver(message.channel, std::move(entry.text), std::move(entry.ticket));
    ++fContext->counters->textsReceived;
    return true;
}

bool Inbound::publishBlock(const std::string& channel, std::string_view block) {
    if (fEnd == nullptr || channel.size() > wire::kMaxChannelName) return false;
    if (!fMayPublish.matches(channel)) return false;
    const auto capacity = std::max<std::size_t>(block.size(), 1);
    auto* bytes = static_cast<char*>(std::malloc(capacity));
    if (bytes == nullptr) throw std::bad_alloc();
    const relay::common::DataBuffer buffer(bytes, capacity, block.size());
    if (!block.empty()) std::memcpy(bytes, block.data(), block.size());
    fEnd->send(channel, buffer);
    ++fContext->counters->blocksReceived;
    return true;
}

void Inbound::announce(const std::string& channel, wire::ViewKind kind,
                       const View::Identity& view) noexcept {
    if (channel.empty()) return;
    try {
        auto text = std::make_shared<const std::string>(
            wire::announcementText(kind, view.count, view.client));
        fLink->deliver(channel, std::move(text), nullptr);
    } catch (...) {
        fContext->log.writeCaught("a view could not be announced");
    }
}

}  // namespace kirogateway
