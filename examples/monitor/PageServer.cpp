#include "PageServer.hpp"

#include <spawn.h>
#include <unistd.h>

#include <array>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <string_view>
#include <utility>

#include "Contract.hpp"

namespace monitor {

using namespace contract;

namespace {

/// Names in addresses, and files below the client's folder.
constexpr std::array<std::pair<const char*, const char*>, 15> kAssets{{
    {"/", "index.html"},
    {"/style.css", "style.css"},
    {"/icon.svg", "icon.svg"},
    {"/commands.mjs", "commands.mjs"},
    {"/drawing.mjs", "drawing.mjs"},
    {"/figure_views.mjs", "figure_views.mjs"},
    {"/figures.mjs", "figures.mjs"},
    {"/flush.mjs", "flush.mjs"},
    {"/page.mjs", "page.mjs"},
    {"/points.mjs", "points.mjs"},
    {"/protocol.mjs", "protocol.mjs"},
    {"/status_bar.mjs", "status_bar.mjs"},
    {"/wire.mjs", "wire.mjs"},
    {"/uplot/uPlot.esm.js", "node_modules/uplot/dist/uPlot.esm.js"},
    {"/uplot/uPlot.min.css", "node_modules/uplot/dist/uPlot.min.css"},
}};

std::string configuration() {
    return boost::json::serialize(boost::json::object{{"commands", kCommandChannel},
                                                      {"blocks", kBlockChannel},
                                                      {"ready", kReadyChannel},
                                                      {"newView", kNewViewChannel},
                                                      {"picks", kPickChannel}});
}

/// `assignment` is a variable's name and "=".
bool isInEnvironment(std::string_view assignment) {
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::string_view(*entry).starts_with(assignment)) return true;
    }
    return false;
}

}  // namespace

kirogateway::Options gatewayOptions(const Options& options) {
    kirogateway::Options gateway;
    gateway.port = options.port;
    for (const auto& [name, file] : kAssets) {
        gateway.assets.push_back(kirogateway::loadAsset(name, (options.client / file).string()));
    }
    gateway.configuration = configuration();
    gateway.mayPublish = {kReadyChannel, kReturnChannel, kNewViewChannel, kPickChannel,
                          kErrorChannel};
    gateway.maySubscribe = {kCommandChannel, kBlockChannel};
    gateway.blockChannels = {kBlockChannel};
    // A command must not overtake the blocks that it names.
    gateway.lanes = {{kCommandChannel, kBlockChannel}};
    // A page announces a new view itself, once it hears the commands. After a return it heard
    // everything, but what it answered meanwhile may be lost: the frame is drawn again.
    gateway.reconnectChannel = kReconnectChannel;
    return gateway;
}

void openBrowser(const std::string& link) {
    if (!isInEnvironment("DISPLAY=") && !isInEnvironment("WAYLAND_DISPLAY=")) return;
    std::string program = "xdg-open";
    std::string argument = link;
    const std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
    pid_t child = 0;
    // Ended by init or by the process's end; it only hands the link on.
    static_cast<void>(
        posix_spawnp(&child, program.c_str(), nullptr, nullptr, arguments.data(), environ));
}

}  // namespace monitor
