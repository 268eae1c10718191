#pragma once

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <string_view>
#include <utility>

namespace kirogateway {

/// One accepted TCP socket, shared by the connection that reads from it and the view that writes to
/// it: the descriptor is closed when the last of the two lets go, so that neither can ever reach a
/// stranger who was given the same number. The last one lets go on the gateway's thread.
class Socket {
  public:
    static constexpr std::size_t kStretches = 3;
    /// Bytes that follow each other, in at most so many places.
    using Bytes = std::array<std::string_view, kStretches>;

    explicit Socket(boost::asio::ip::tcp::socket socket) : fSocket(std::move(socket)) {}
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() = default;

    /// For the gateway's thread.
    [[nodiscard]] boost::asio::ip::tcp::socket& native() noexcept { return fSocket; }

    /// How many of `bytes`, of each stretch `most`, the socket took without blocking; 0: it is
    /// full; -1: it is broken, which whoever reads from it learns too. Any thread, one at a time.
    [[nodiscard]] std::ptrdiff_t write(const Bytes& bytes, std::size_t most) noexcept;

    /// No more is written.
    void shutdownWriting() noexcept;
    /// Ends the connection; what was waited for on it comes back with an error.
    void shutdown() noexcept;

  private:
    boost::asio::ip::tcp::socket fSocket;
};

}  // namespace kirogateway
