#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace bench {

/// A WebSocket text frame, masked as a client's has to be.
[[nodiscard]] std::string clientFrame(std::string_view text);

/// A connection to a port of this machine, without Nagle's delay. It throws
/// `std::runtime_error` when the other side has gone.
class Socket {
  public:
    explicit Socket(std::uint16_t port);
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&&) = delete;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    void send(std::string_view bytes) const;
    /// At least one byte; answers how many.
    std::size_t receive(char* to, std::size_t size) const;

    /// One `clientFrame`.
    void sendText(std::string_view text) const;
    /// Ends what other threads are sending and receiving.
    void shutDown() const;
    /// Asks for an upgrade to WebSocket and waits until it is granted. `at` is where the page lies.
    void upgrade(std::uint16_t port, const std::string& token, const std::string& at = "/") const;

  private:
    friend class Listener;
    Socket() = default;

    int fSocket = -1;
};

/// Where a socket's other end comes from.
class Listener {
  public:
    Listener();
    [[nodiscard]] std::uint16_t port() const noexcept { return fPort; }
    /// Waits for the next connection.
    [[nodiscard]] Socket accept() const;

  private:
    Socket fSocket;
    std::uint16_t fPort = 0;
};

/// What every figure is fed to: a plain WebSocket client that reads frames whole and hands them
/// out where they lie. One thread.
class Client {
  public:
    struct Frame {
        bool isText = false;
        std::string_view payload;  ///< valid until the next `read`
    };

    /// REQUIRES: `socket` has been upgraded.
    explicit Client(Socket socket);

    Frame read();
    void sendText(std::string_view text) const { fSocket.sendText(text); }
    /// Reads batches until so many records have come. With `acknowledges` it says every now and
    /// then how far it is, as the gateway demands of whoever may return.
    void readRecords(std::size_t count, bool acknowledges);

  private:
    /// Answers whether a whole frame lies at the front.
    bool parse(Frame& frame);
    void fill();

    Socket fSocket;
    const std::unique_ptr<char[]> fBuffer;
    std::size_t fBegin = 0;
    std::size_t fEnd = 0;
    std::size_t fMissing = 0;  ///< of the frame at the front, as far as is known
};

}  // namespace bench
