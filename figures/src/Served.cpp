#include "Served.hpp"

#include "Serving.hpp"
#include "kirolink/Link.hpp"
#include "process/Environment.hpp"

namespace kirofigures::detail {
namespace {

/// The file that says where the cluster is; empty: there is none.
std::string linkFile(const WindowOptions& options) {
    if (!options.link.empty()) return options.link;
    return std::string(process::environmentText("KIROWEB_LINK"));
}

}  // namespace

Served::Served(const WindowOptions& options, const Channels& channels) {
    const auto file = linkFile(options);
    if (file.empty()) {
        fGateway = std::make_unique<kirogateway::Gateway>(gatewayOptions(options, channels));
        return;
    }
    fLink = std::make_unique<kirolink::Link>(linkOptions(options, channels, file));
}

Served::~Served() = default;

bool Served::isLastPageGone() const noexcept {
    return fLink ? fLink->lastPageGone() : fGateway->lastPageGone();
}

kirogateway::Statistics Served::statistics() const {
    if (fGateway) return fGateway->statistics();
    const auto known = fLink->statistics();
    kirogateway::Statistics statistics;
    statistics.pages = known.pages;
    statistics.views = known.views;
    statistics.blocksDelivered = known.blocksDelivered;
    statistics.blocksGivenBack = known.blocksRefused + known.blocksNobody + known.blocksGone;
    statistics.textsReceived = known.textsReceived;
    statistics.blocksReceived = known.blocksReceived;
    return statistics;
}

std::string Served::diagnostics() const {
    return fLink ? fLink->diagnostics() : fGateway->diagnostics();
}

std::string Served::link() const {
    if (fGateway) return fGateway->link();
    const auto links = fLink->links();
    return links.empty() ? std::string() : links.front();
}

}  // namespace kirofigures::detail
