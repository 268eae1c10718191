#include "Inbound.hpp"

#include <utility>

#include "checked/Require.hpp"

namespace kirogateway {

Inbound::Inbound(std::shared_ptr<Context> context)
    : fContext(std::move(context)), fMayPublish(fContext->options.mayPublish) {}

void Inbound::connect(Bus& bus) noexcept {
    KIROWEB_REQUIRE(fBus == nullptr);
    fBus = &bus;
    fTexts = &bus.texts();
}

bool Inbound::publish(View& view, wire::Publish&& message) {
    if (message.channel.size() > wire::kMaxChannelName) return false;
    if (!fMayPublish.matches(message.channel)) return false;
    auto entry = view.backlog()->add(std::move(message.text), fContext->memory);
    fTexts->deliver(message.channel, std::move(entry.text), std::move(entry.ticket));
    ++fContext->counters->textsReceived;
    return true;
}

bool Inbound::publishBlock(const std::string& channel, std::string_view block) {
    if (channel.size() > wire::kMaxChannelName) return false;
    if (!fMayPublish.matches(channel) || !fBus->send(channel, block)) return false;
    ++fContext->counters->blocksReceived;
    return true;
}

wire::Clocks Inbound::clocks() const noexcept {
    KIROWEB_REQUIRE(fBus != nullptr);
    return fBus->clocks();
}

void Inbound::announce(wire::ViewKind kind, const View::Identity& view) noexcept {
    try {
        fBus->announce(kind, view);
    } catch (...) {
        fContext->log.writeCaught("a view could not be announced");
    }
}

}  // namespace kirogateway
