#include "LinkBus.hpp"

namespace link_tool {
namespace {

/// Bytes that the engine has not had yet, from which on pages feel it.
constexpr std::size_t kMuch = std::size_t{1} << 20U;

}  // namespace

void LinkBus::deliver(const std::string& channel, relay::Publication::Text text,
                      std::shared_ptr<const void> ticket) {
    fEnd->publish(channel, *text);
    if (ticket == nullptr || fEnd->waiting() < kMuch) return;
    annotated::Lock lock(fMutex);
    fTickets.push_back(std::move(ticket));
}

bool LinkBus::send(const std::string& channel, std::string_view block) {
    fEnd->sendBlock(channel, block);
    return true;
}

kirogateway::wire::Clocks LinkBus::clocks() const noexcept {
    auto clocks = Bus::clocks();
    const auto known = fEnd->statistics();
    clocks.engineAhead = known.clockOffset;
    clocks.uncertainty = known.clockUncertainty;
    clocks.isEngineKnown = known.clockUncertainty.count() > 0;
    return clocks;
}

void LinkBus::announce(kirogateway::wire::ViewKind kind, const kirogateway::View::Identity& view) {
    using Kind = kirolink::GatewayEnd::ViewKind;
    const bool isReturn = kind == kirogateway::wire::ViewKind::kReturn;
    fEnd->announce(isReturn ? Kind::kReturn : Kind::kNew, view.client, view.count);
}

void LinkBus::pages(std::size_t count) noexcept {
    fPages = count;
    fEnd->pages(count);
}

void LinkBus::letGo() noexcept {
    if (fEnd->waiting() >= kMuch) return;
    std::deque<std::shared_ptr<const void>> tickets;
    annotated::Lock lock(fMutex);
    tickets.swap(fTickets);
}

void LinkTransfer::finish(Outcome outcome) {
    using kirolink::BlockOutcome;
    fTicket->answer(outcome == Outcome::kDelivered ? BlockOutcome::kDelivered
                    : outcome == Outcome::kRefused ? BlockOutcome::kRefused
                                                   : BlockOutcome::kNobody);
}

}  // namespace link_tool
