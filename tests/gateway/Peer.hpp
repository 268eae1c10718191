#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Frames.hpp"

namespace gatewaytest {

/// How peers reach the gateway.
struct Access {
    std::uint16_t port = 0;
    bool isTls = false;
    int receiveBuffer = 0;  ///< of the socket, in bytes; 0: the usual one

    [[nodiscard]] std::string host() const { return "127.0.0.1:" + std::to_string(port); }
    [[nodiscard]] std::string origin() const { return (isTls ? "https://" : "http://") + host(); }
};

/// A client on a raw loopback socket that does what it is told, right or wrong. All operations
/// block; a peer that waits for what does not come is ended by the test's time limit.
class Peer {
  public:
    explicit Peer(const Access& access);

    /// Answers whether the socket took all of it.
    bool send(std::string_view bytes) const;
    /// A whole frame, masked as a client's has to be.
    bool sendFrame(unsigned opcode, std::string_view payload) const;
    bool sendText(std::string_view text) const { return sendFrame(1, text); }

    /// The answer to an HTTP request: status line and fields, the body left unread.
    std::string readHead();
    /// The next frame; opcode 0 when the connection has ended.
    Frame readFrame();
    /// The next text frame that is control, ends the test's hopes (empty) at the connection's end.
    std::string readControl(std::string_view what);
    /// The next messages in text frames, at least `count`.
    std::vector<Record> readRecords(std::size_t count);
    /// The next binary frame's payload.
    std::string readBinary();
    /// The code of the close frame; 0 if the connection ended without one. Skips what is before.
    unsigned readClose();
    /// Reads whatever comes until the end.
    std::string readAll();

    /// Ends the connection as a network does: without a close frame.
    void cut();
    void closeWriting() const;

  private:
    using Socket = boost::asio::ip::tcp::socket;

    bool receive();
    template <typename Wanted>
    Frame readUntil(const Wanted& isWanted);

    std::unique_ptr<Socket> fSocket;
    std::unique_ptr<boost::asio::ssl::stream<Socket&>> fTls;  ///< over the socket, or none
    std::string fBytes;
    std::deque<Frame> fFrames;
};

/// A well-formed upgrade that offers the token, on the site of `prefix`.
std::string upgradeRequest(const Access& access, std::string_view token,
                           const std::string& prefix = {});
/// What stands behind "#token=" or "#code=" in `link`.
std::string secretOf(std::string_view link);

}  // namespace gatewaytest
