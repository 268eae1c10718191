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
    options.mayPublish = {"/bench/*"};
    options.maySubscribe = {"/bench/*"};
    options.blockChannels = {"/bench/blocks"};
    options.limits.connections = 2 * kIdlePages;
    return options;
}

std::shared_ptr<relay::message_service::MessageService> makeService() {
    relay::getRelay();
    return relay::message_service::createMessageService("bench", {}).get();
}

/// Exchanges the link's token for the cookie, "name=value".
std::string fetchCookie(const kirogateway::Gateway& gateway) {
    const auto link = gateway.link();
    const Socket socket(gateway.port());
    socket.send("GET " + link.substr(link.find("/?")) +
                " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(gateway.port()) + "\r\n\r\n");
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos) {
        std::array<char, 1024> piece;
        head.append(piece.data(), socket.receive(piece.data(), piece.size()));
    }
    static constexpr std::string_view kField = "Set-Cookie: ";
    const auto begin = head.find(kField);
    if (begin == std::string::npos) throw std::runtime_error("no cookie");
    return head.substr(begin + kField.size(), head.find(';', begin) - begin - kField.size());
}

}  // namespace

Stage::Stage(std::vector<kirogateway::Asset> assets)
    : fGateway(std::make_unique<kirogateway::Gateway>(optionsWith(std::move(assets)))),
      fService(makeService()),
      fCookie(fetchCookie(*fGateway)) {}

Socket Stage::connect(std::string_view channel) const {
    Socket socket(fGateway->port());
    socket.upgrade(fGateway->port(), fCookie);
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
