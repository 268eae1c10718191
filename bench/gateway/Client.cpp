#include "Client.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace bench {

namespace {

constexpr std::size_t kBufferSize = std::size_t{4} << 20U;
constexpr std::size_t kReadAtOnce = std::size_t{128} << 10U;
constexpr std::size_t kAcknowledgeAfter = 500'000;
constexpr char kRecordSeparator = '\x1e';

std::size_t readBigEndian(const char* from, std::size_t width) {
    std::size_t number = 0;
    for (std::size_t i = 0; i < width; ++i) {
        number = number << 8U | static_cast<unsigned char>(from[i]);
    }
    return number;
}

}  // namespace

std::string clientFrame(std::string_view text) {
    static constexpr std::array<char, 4> kMask{'\x37', '\x7a', '\x21', '\x3d'};
    const std::size_t width = text.size() < 126 ? 0 : text.size() <= 0xffff ? 2 : 8;
    const auto shortLength = width == 0 ? text.size() : width == 2 ? 126U : 127U;
    std::string frame{'\x81', static_cast<char>(0x80U | shortLength)};
    for (auto i = width; i-- > 0;) frame += static_cast<char>(text.size() >> (8 * i) & 0xffU);
    frame.append(kMask.data(), kMask.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        frame += static_cast<char>(text[i] ^ kMask[i % kMask.size()]);
    }
    return frame;
}

// --- Socket ------------------------------------------------------------------------------------

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int openSocket() { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

void setNoDelay(int socket) {
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

Socket::Socket(std::uint16_t port) : fSocket(openSocket()) {
    const auto address = loopback(port);
    if (::connect(fSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect");
    }
    setNoDelay(fSocket);
}

Socket::~Socket() {
    if (fSocket >= 0) ::close(fSocket);
}

Socket::Socket(Socket&& other) noexcept : fSocket(std::exchange(other.fSocket, -1)) {}

void Socket::shutDown() const { ::shutdown(fSocket, SHUT_RDWR); }

void Socket::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const auto sent = ::send(fSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) throw std::runtime_error("the connection is broken");
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::size_t Socket::receive(char* to, std::size_t size) const {
    const auto got = ::recv(fSocket, to, size, 0);
    if (got <= 0) throw std::runtime_error("the connection has ended");
    return static_cast<std::size_t>(got);
}

void Socket::sendText(std::string_view text) const { send(clientFrame(text)); }

void Socket::upgrade(std::uint16_t port, const std::string& token, const std::string& at) const {
    const auto host = "127.0.0.1:" + std::to_string(port);
    send("GET " + at + "kiroweb HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
         "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
         "Sec-WebSocket-Protocol: kiroweb.v1, kiroweb.token." +
         token + "\r\n\r\n");
    // Nothing comes behind the answer before the client has spoken.
    std::string head;
    while (!head.ends_with("\r\n\r\n")) {
        std::array<char, 1024> piece;
        head.append(piece.data(), receive(piece.data(), piece.size()));
    }
    if (!head.starts_with("HTTP/1.1 101")) throw std::runtime_error("no upgrade: " + head);
}

Listener::Listener() {
    auto address = loopback(0);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    fSocket.fSocket = openSocket();
    if (::bind(fSocket.fSocket, generic, size) != 0 || ::listen(fSocket.fSocket, 1) != 0 ||
        ::getsockname(fSocket.fSocket, generic, &size) != 0) {
        throw std::runtime_error("cannot listen");
    }
    fPort = ntohs(address.sin_port);
}

Socket Listener::accept() const {
    Socket socket;
    socket.fSocket = ::accept(fSocket.fSocket, nullptr, nullptr);
    if (socket.fSocket < 0) throw std::runtime_error("cannot accept");
    setNoDelay(socket.fSocket);
    return socket;
}

// --- Client ------------------------------------------------------------------------------------

Client::Client(Socket socket)
    : fSocket(std::move(socket)), fBuffer(std::make_unique_for_overwrite<char[]>(kBufferSize)) {}

Client::Frame Client::read() {
    Frame frame;
    while (!parse(frame)) fill();
    return frame;
}

bool Client::parse(Frame& frame) {
    const char* const at = fBuffer.get() + fBegin;
    const auto size = fEnd - fBegin;
    fMissing = 0;
    if (size < 2) return false;
    const auto shortLength = static_cast<unsigned char>(at[1]);
    const std::size_t width = shortLength == 126 ? 2 : shortLength == 127 ? 8 : 0;
    const auto head = 2 + width;
    if (size < head) return false;
    const auto payload = width == 0 ? shortLength : readBigEndian(at + 2, width);
    if (head + payload > kBufferSize) throw std::length_error("a frame is too large");
    if (size < head + payload) {
        fMissing = head + payload - size;
        return false;
    }
    frame.isText = (static_cast<unsigned char>(at[0]) & 0xfU) == 1;
    frame.payload = {at + head, payload};
    fBegin += head + payload;
    return true;
}

/// Of a large frame no more than is missing is read: the next one then begins at the front, and
/// nothing has to be moved.
void Client::fill() {
    const auto size = fEnd - fBegin;
    const auto want = std::max(fMissing, kReadAtOnce);
    if (size == 0 || fBegin + size + want > kBufferSize) {
        std::memmove(fBuffer.get(), fBuffer.get() + fBegin, size);
        fBegin = 0;
        fEnd = size;
    }
    fEnd += fSocket.receive(fBuffer.get() + fEnd, std::min(want, kBufferSize - fEnd));
}

void Client::readRecords(std::size_t count, bool acknowledges) {
    std::size_t unacknowledged = 0;
    for (std::size_t records = 0; records < count;) {
        const auto batch = read().payload;
        const auto here = std::ranges::count(batch, kRecordSeparator);
        records += static_cast<std::size_t>(here);
        unacknowledged += batch.size();
        if (!acknowledges || unacknowledged < kAcknowledgeAfter) continue;
        unacknowledged = 0;
        std::int64_t first = 0;
        std::from_chars(batch.data(), batch.data() + batch.size(), first);
        sendText(R"({"t":"ack","last":)" + std::to_string(first + here - 1) + "}");
    }
}

}  // namespace bench
