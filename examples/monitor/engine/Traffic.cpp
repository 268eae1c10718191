#include "engine/Traffic.hpp"

#include <numeric>
#include <utility>
#include <vector>

#include "kiro/web/CommandSenderInterface.hpp"

namespace monitor::engine {

namespace {

std::uint64_t sum(const std::vector<std::uint64_t>& sizes) {
    return std::accumulate(sizes.begin(), sizes.end(), std::uint64_t{0});
}

}  // namespace

TrafficCount::TrafficCount(std::shared_ptr<kiro::web::CommandSenderInterface> sender)
    : fSender(std::move(sender)) {
    fSender->setSizeStatsEnabled(true);
}

const Traffic& TrafficCount::upToNow() {
    fTraffic.commands += fSender->getPublishSizeInBytes().size();
    fTraffic.commandBytes += sum(fSender->getPublishSizeInBytes());
    fTraffic.blocks += fSender->getBinarySizeInBytes().size();
    fTraffic.blockBytes += sum(fSender->getBinarySizeInBytes());
    // Switching off and on empties the statistics, which would only grow otherwise.
    fSender->setSizeStatsEnabled(false);
    fSender->setSizeStatsEnabled(true);
    return fTraffic;
}

}  // namespace monitor::engine
