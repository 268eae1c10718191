#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Frames.hpp"

namespace gatewaytest {

/// What a peer may have between itself and its socket.
class Layer {
  public:
    Layer() = default;
    Layer(const Layer&) = delete;
    Layer& operator=(const Layer&) = delete;
    virtual ~Layer() = default;
    virtual long send(const char* from, std::size_t size) = 0;
    virtual long receive(char* to, std::size_t size) = 0;
};
/// Makes one for a socket; an empty function: none.
using LayerMaker = std::function<std::unique_ptr<Layer>(int)>;

/// A client on a raw loopback socket that does what it is told, right or wrong. All operations
/// block; a peer that waits for what does not come is ended by the test's time limit.
class Peer {
  public:
    explicit Peer(std::uint16_t port, int receiveBuffer = 0, const LayerMaker& layer = {});
    ~Peer();
    Peer(Peer&& other) noexcept;
    Peer& operator=(Peer&&) = delete;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

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
    unsigned readClose(std::string* reason = nullptr);
    /// Reads whatever comes until the end.
    std::string readAll();

    /// Ends the connection as a network does: without a close frame.
    void cut();
    void closeWriting() const;

  private:
    bool receive();

    int fSocket = -1;
    std::unique_ptr<Layer> fLayer;
    std::string fBytes;
    std::deque<Frame> fFrames;
};

/// A well-formed upgrade for `port`, with the cookie. `origin` empty: the right one.
std::string upgradeRequest(std::uint16_t port, std::string_view cookie,
                           std::string_view origin = {}, std::string_view scheme = "http");
/// Exchanges the token of `link` for the cookie, "name=value".
std::string fetchCookie(std::uint16_t port, std::string_view link, const LayerMaker& layer = {});

}  // namespace gatewaytest
