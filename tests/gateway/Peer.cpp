#include "Peer.hpp"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/write.hpp>
#include <utility>

namespace gatewaytest {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

asio::io_context io;  // never run: all operations block

}  // namespace

Peer::Peer(const Access& access) : fSocket(std::make_unique<Socket>(io)) {
    fSocket->open(asio::ip::tcp::v4());
    if (access.receiveBuffer > 0) {
        fSocket->set_option(asio::socket_base::receive_buffer_size(access.receiveBuffer));
    }
    fSocket->set_option(asio::ip::tcp::no_delay(true));
    fSocket->connect({asio::ip::address_v4::loopback(), access.port});
    if (!access.isTls) return;
    static asio::ssl::context client(asio::ssl::context::tls_client);
    fTls = std::make_unique<asio::ssl::stream<Socket&>>(*fSocket, client);
    error_code ignored;  // whoever reads learns of it
    fTls->handshake(asio::ssl::stream_base::client, ignored);
}

bool Peer::send(std::string_view bytes) const {
    error_code error;
    fTls ? asio::write(*fTls, asio::buffer(bytes), error)
         : asio::write(*fSocket, asio::buffer(bytes), error);
    return !error;
}

bool Peer::receive() {
    std::array<char, 65536> buffer{};
    error_code error;
    const auto got = fTls ? fTls->read_some(asio::buffer(buffer), error)
                          : fSocket->read_some(asio::buffer(buffer), error);
    fBytes.append(buffer.data(), got);
    return !error;
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
    constexpr std::string_view kMask = "7z!=";
    frame += kMask;
    for (std::size_t i = 0; i < payload.size(); ++i) {
        frame += static_cast<char>(payload[i] ^ kMask[i % 4]);
    }
    return send(frame);
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

template <typename Wanted>
Frame Peer::readUntil(const Wanted& isWanted) {
    auto frame = readFrame();
    while (!frame.isEnd() && !isWanted(frame)) frame = readFrame();
    return frame;
}

std::string Peer::readControl(std::string_view what) {
    const auto start = "{\"t\":\"" + std::string(what) + "\"";
    const auto frame = readUntil([&](const Frame& one) { return one.payload.starts_with(start); });
    return frame.isEnd() ? std::string() : frame.payload;
}

std::vector<Record> Peer::readRecords(std::size_t count) {
    std::vector<Record> records;
    while (records.size() < count) {
        const auto frame = readFrame();
        if (frame.isEnd()) return records;
        if (frame.opcode != 1 || frame.payload.starts_with('{')) continue;
        for (auto& record : readBatch(frame.payload)) records.push_back(std::move(record));
    }
    return records;
}

std::string Peer::readBinary() {
    const auto frame = readUntil([](const Frame& one) { return one.opcode == 2; });
    return frame.isEnd() ? std::string() : frame.payload;
}

unsigned Peer::readClose() {
    const auto code = readUntil([](const Frame&) { return false; }).payload;
    const auto byte = [&code](std::size_t i) {
        return unsigned{static_cast<unsigned char>(code[i])};
    };
    return code.size() < 2 ? 0 : byte(0) << 8U | byte(1);
}

std::string Peer::readAll() {
    while (receive()) {
    }
    return std::exchange(fBytes, {});
}

void Peer::cut() {
    // A reset: what the gateway has not sent yet is lost.
    fSocket->set_option(asio::socket_base::linger(true, 0));
    fSocket->close();
}

void Peer::closeWriting() const {
    error_code ignored;  // the other side may have closed both
    fSocket->shutdown(Socket::shutdown_send, ignored);
}

std::string upgradeRequest(const Access& access, std::string_view token,
                           const std::string& prefix) {
    return "GET " + prefix + "/kiroweb HTTP/1.1\r\nHost: " + access.host() +
           "\r\nOrigin: " + access.origin() +
           "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
           "Sec-WebSocket-Protocol: kiroweb.v1, kiroweb.token." +
           std::string(token) + "\r\n\r\n";
}

std::string secretOf(std::string_view link) {
    const auto fragment = link.substr(link.find('#'));
    return std::string(fragment.substr(fragment.find('=') + 1));
}

}  // namespace gatewaytest
