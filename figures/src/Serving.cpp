#include "Serving.hpp"

#include <algorithm>
#include <boost/json.hpp>
#include <cstdio>

#include "PageFiles.hpp"
#include "TokenFile.hpp"

namespace kirofigures::detail {

namespace json = boost::json;

namespace {

std::string configuration(const WindowOptions& options, const Channels& channels) {
    return json::serialize(json::object{{"vocabulary", kVocabulary},
                                        {"commands", channels.commands},
                                        {"blocks", channels.blocks},
                                        {"ready", channels.ready},
                                        {"newView", channels.newView},
                                        {"events", channels.events},
                                        {"title", options.title}});
}

bool isConnected(const json::value& page) { return page.at("state") == "connected"; }

/// Whether the page has not taken everything that was sent: what it has worked off, it
/// acknowledges.
bool lagsBehind(const json::value& page) {
    return page.at("acknowledged").to_number<std::uint64_t>() + 1 <
           page.at("nextMessage").to_number<std::uint64_t>();
}

/// What the page needs to do its work, in the options of a gateway or a link.
template <typename Options>
void setTraffic(Options& to, const WindowOptions& options, const Channels& channels) {
    if (!options.tokenFile.empty()) to.token = tokenFrom(options.tokenFile);
    to.configuration = configuration(options, channels);
    to.mayPublish = {channels.ready,      channels.newView,    channels.events,
                     channels.returns[0], channels.returns[1], kErrorChannel};
    to.maySubscribe = {channels.commands, channels.blocks};
    to.blockChannels = {channels.blocks};
    // A command must not overtake the blocks that it names.
    to.lanes = {{channels.commands, channels.blocks}};
    // A page announces a new view itself, once it hears the commands. After a return it heard
    // everything, but what it answered meanwhile may be lost: the frame is sent again.
    to.reconnectChannel = channels.reconnect;
}

}  // namespace

kirogateway::Options gatewayOptions(const WindowOptions& options, const Channels& channels) {
    kirogateway::Options gateway;
    gateway.address = options.address;
    gateway.port = options.port;
    gateway.certificateFile = options.certificateFile;
    gateway.keyFile = options.keyFile;
    gateway.extraHosts = options.extraHosts;
    gateway.extraOrigins = options.extraOrigins;
    gateway.frameAncestors = options.frameAncestors;
    gateway.limits.connections = options.pages + gateway.limits.unauthenticatedConnections;
    // A block that comes in pieces the page has to copy together. Most images are smaller than
    // this, a 32-bit one of 1024 x 1024 is just larger than what is usual.
    gateway.limits.pieceSize = gateway.limits.bytesUnderWay;
    gateway.assets = kiropage::filesAs<kirogateway::Asset>();
    setTraffic(gateway, options, channels);
    return gateway;
}

kirolink::Options linkOptions(const WindowOptions& options, const Channels& channels,
                              const std::string& file) {
    auto link = kirolink::loadOptions(file);
    setTraffic(link, options, channels);
    link.pieceSize = kirogateway::Limits().bytesUnderWay;
    if (options.printsLink) {
        link.onGateway = [](const std::string& address) {
            std::puts(address.c_str());
            std::fflush(stdout);
        };
    }
    return link;
}

std::string lateCause(bool hasAnnounced, const std::string& pages) {
    const json::value known = json::parse(pages);
    const json::array& detail = known.at("detail").as_array();
    const bool noneConnected = std::ranges::none_of(detail, isConnected);
    if (noneConnected) return hasAnnounced ? "client gone" : "no client yet";
    const bool allLag = std::ranges::all_of(
        detail, [](const json::value& page) { return !isConnected(page) || lagsBehind(page); });
    return allLag ? "client stalled" : "token lost";
}

}  // namespace kirofigures::detail
