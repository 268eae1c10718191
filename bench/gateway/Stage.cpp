#include "Stage.hpp"

#include <array>
#include <stdexcept>
#include <utility>

#include "kirohost/Controls.hpp"
#include "relay/Relay.hpp"

namespace bench {

namespace {

kirogateway::Options optionsWith(std::vector<kirogateway::Asset> assets) {
    kirogateway::Options options;
    options.assets = std::move(assets);
    options.mayPublish = {"/bench/*", kScriptErrors};
    options.maySubscribe = {"/bench/*"};
    options.blockChannels = {"/bench/blocks"};
    options.limits.connections = 2 * kIdlePages;
    return options;
}

std::shared_ptr<relay::message_service::MessageService> makeService() {
    relay::getRelay();
    return relay::message_service::createMessageService("bench", {}).get();
}

/// The token that stands in the gateway's link.
std::string tokenOf(const kirogateway::Gateway& gateway) {
    const auto link = gateway.link();
    return link.substr(link.find('=') + 1);
}

}  // namespace

Stage::Stage(std::vector<kirogateway::Asset> assets)
    : fGateway(std::make_unique<kirogateway::Gateway>(optionsWith(std::move(assets)))),
      fService(makeService()),
      fToken(tokenOf(*fGateway)) {}

Socket Stage::connect(std::string_view channel) const {
    Socket socket(fGateway->port());
    socket.upgrade(fGateway->port(), fToken);
    socket.sendText(R"({"t":"hello","version":1,"subscribe":[")" + std::string(channel) + "\"]}");
    std::array<char, 4096> hello;
    socket.receive(hello.data(), hello.size());
    return socket;
}

void Stage::announce(Client& client, const std::string& channel) {
    client.sendText(R"({"t":"publish","channel":")" + channel + R"(/channelReady","text":"{}"})");
    client.sendText(R"({"t":"echo","id":1})");
    client.read();
    kirohost::waitForDelivery();
}

}  // namespace bench
