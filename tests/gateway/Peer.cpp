#include "Peer.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace gatewaytest {

Peer::Peer(std::uint16_t port, int receiveBuffer, const LayerMaker& layer)
    : fSocket(::socket(AF_INET, SOCK_STREAM, 0)) {
    if (receiveBuffer > 0) {
        ::setsockopt(fSocket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect");
    }
    if (layer) fLayer = layer(fSocket);
}

Peer::~Peer() {
    if (fSocket >= 0) ::close(fSocket);
}

Peer::Peer(Peer&& other) noexcept
    : fSocket(std::exchange(other.fSocket, -1)),
      fLayer(std::move(other.fLayer)),
      fBytes(std::move(other.fBytes)),
      fFrames(std::move(other.fFrames)) {}

bool Peer::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const auto sent = fLayer ? fLayer->send(bytes.data(), bytes.size())
                                 : ::send(fSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool Peer::sendFrame(unsigned opcode, std::string_view payload) const {
    std::string frame(1, static_cast<char>(0x80U | opcode));
    const auto byte = [](std::size_t value) { return static_cast<char>(value & 0xffU); };
    if (payload.size() < 126) {
        frame += byte(0x80U | payload.size());
    } else {
        const std::size_t width = payload.size() <= 0xffff ? 2 : 8;
        frame += byte(width == 2 ? 0xfe : 0xff);
        for (std::size_t i = width; i-- > 0;) frame += byte(payload.size() >> (8 * i));
    }
    static constexpr std::array<char, 4> kMask{'\x37', '\x7a', '\x21', '\x3d'};
    frame.append(kMask.data(), kMask.size());
    for (std::size_t i = 0; i < payload.size(); ++i) {
        frame += static_cast<char>(payload[i] ^ kMask[i % 4]);
    }
    return send(frame);
}

bool Peer::receive() {
    std::array<char, 65536> buffer{};
    const auto got = fLayer ? fLayer->receive(buffer.data(), buffer.size())
                            : ::recv(fSocket, buffer.data(), buffer.size(), 0);
    if (got <= 0) return false;
    fBytes.append(buffer.data(), static_cast<std::size_t>(got));
    return true;
}

std::string Peer::readHead() {
    while (fBytes.find("\r\n\r\n") == std::string::npos) {
        if (!receive()) return std::exchange(fBytes, {});
    }
    const auto end = fBytes.find("\r\n\r\n") + 4;
    auto head = fBytes.substr(0, end);
    fBytes.erase(0, end);
    return head;
}

Frame Peer::readFrame() {
    while (fFrames.empty()) {
        for (auto& frame : takeFrames(fBytes)) fFrames.push_back(std::move(frame));
        if (fFrames.empty() && !receive()) return {};
    }
    auto frame = std::move(fFrames.front());
    fFrames.pop_front();
    return frame;
}

std::string Peer::readControl(std::string_view what) {
    for (;;) {
        auto frame = readFrame();
        if (frame.opcode == 0 || frame.opcode == 8) return {};
        if (frame.payload.starts_with("{\"t\":\"" + std::string(what) + "\"")) return frame.payload;
    }
}

std::vector<Record> Peer::readRecords(std::size_t count) {
    std::vector<Record> records;
    while (records.size() < count) {
        const auto frame = readFrame();
        if (frame.opcode == 0 || frame.opcode == 8) return records;
        if (frame.opcode != 1 || frame.payload.starts_with('{')) continue;
        for (auto& record : readBatch(frame.payload)) records.push_back(std::move(record));
    }
    return records;
}

std::string Peer::readBinary() {
    for (;;) {
        auto frame = readFrame();
        if (frame.opcode == 0 || frame.opcode == 8) return {};
        if (frame.opcode == 2) return frame.payload;
    }
}

unsigned Peer::readClose(std::string* reason) {
    for (;;) {
        const auto frame = readFrame();
        if (frame.opcode == 0) return 0;
        if (frame.opcode != 8 || frame.payload.size() < 2) continue;
        if (reason != nullptr) *reason = frame.payload.substr(2);
        return static_cast<unsigned>(static_cast<unsigned char>(frame.payload[0])) << 8U |
               static_cast<unsigned char>(frame.payload[1]);
    }
}

std::string Peer::readAll() {
    while (receive()) {
    }
    return std::exchange(fBytes, {});
}

void Peer::cut() {
    // A reset: what the gateway has not sent yet is lost.
    const linger now{1, 0};
    ::setsockopt(fSocket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    ::close(std::exchange(fSocket, -1));
}

void Peer::closeWriting() const { ::shutdown(fSocket, SHUT_WR); }

std::string upgradeRequest(std::uint16_t port, std::string_view cookie, std::string_view origin,
                           std::string_view scheme) {
    const auto host = "127.0.0.1:" + std::to_string(port);
    return "GET /kiroweb HTTP/1.1\r\nHost: " + host + "\r\nOrigin: " +
           (origin.empty() ? std::string(scheme) + "://" + host : std::string(origin)) +
           "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
           "Sec-WebSocket-Protocol: kiroweb.v1\r\nCookie: other=1; " +
           std::string(cookie) + "\r\n\r\n";
}

std::string fetchCookie(std::uint16_t port, std::string_view link, const LayerMaker& layer) {
    Peer peer(port, 0, layer);
    const auto target = link.substr(link.find("/?"));
    peer.send("GET " + std::string(target) +
              " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n");
    const auto head = peer.readHead();
    const auto begin = head.find("Set-Cookie: ");
    if (begin == std::string::npos) return {};
    return head.substr(begin + 12, head.find(';', begin) - begin - 12);
}

}  // namespace gatewaytest
