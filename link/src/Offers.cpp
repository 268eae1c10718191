#include "Offers.hpp"

#include <memory>
#include <utility>

#include "Frame.hpp"
#include "Subjects.hpp"

namespace kirolink {
namespace {

/// When there are more they are forgotten, and told once more.
constexpr std::size_t kMostSessions = 65'536;
constexpr std::size_t kMostOfBeat = 29;
/// Until there may be a new engine.
constexpr std::chrono::seconds kAtOnce{1};

}  // namespace

Offers::Offers(Cluster& cluster, std::string gateway, AddressOf addressOf)
    : fCluster(cluster), fGateway(std::move(gateway)), fAddressOf(std::move(addressOf)) {}

bool Offers::beat(const std::string& session, std::string_view bytes, TimePoint now) {
    // Anything of up to 1 MiB may come there, and would be read as what it says that it is.
    if (bytes.size() > kMostOfBeat || !subjects::isName(session)) return false;
    const auto frame = readFrame(bytes);
    const auto* beat = frame ? std::get_if<frame::Beat>(&frame->body) : nullptr;
    if (beat == nullptr) return false;
    const auto address = fAddressOf(session, beat->hasPage);
    if (address.empty()) return true;
    if (fTold.size() >= kMostSessions && !fTold.contains(session)) fTold.clear();
    auto& told = fTold[session];
    const auto epoch = frame->header.epoch;
    if (now - told.when < (told.epoch == epoch ? kAgain : kAtOnce)) return true;
    told = {epoch, now};
    auto offer = writeFrame({epoch, 0, 0}, frame::Offer{address});
    static_cast<void>(fCluster.publish(subjects::from(session, fGateway),
                                       std::make_shared<const std::string>(std::move(offer))));
    return true;
}

}  // namespace kirolink
