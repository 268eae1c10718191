#pragma once

#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/role.hpp>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Socket.hpp"

namespace kirogateway {

/// The stream beneath Beast's WebSocket: a TCP socket, with TLS or without.
///
/// Beast writes frames of its own accord, to answer pings and close frames. They must not land in
/// the middle of a frame that a publishing thread has begun, so what Beast writes once a view is
/// there goes to the view, which writes it between two frames. One thread.
class Wire {
  public:
    using executor_type = boost::asio::ip::tcp::socket::executor_type;
    using Sink = std::function<void(std::string)>;

    Wire(std::shared_ptr<Socket> socket, boost::asio::ssl::context* tls)
        : fShared(std::move(socket)), fSocket(fShared->native()) {
        if (tls != nullptr) fTls = std::make_unique<TlsStream>(fSocket, *tls);
    }

    executor_type get_executor() { return fSocket.get_executor(); }
    [[nodiscard]] const std::shared_ptr<Socket>& shared() const noexcept { return fShared; }
    [[nodiscard]] bool isTls() const noexcept { return fTls != nullptr; }

    /// From now on what Beast writes goes to `sink`; an empty one drops it.
    void redirect(Sink sink) noexcept {
        fIsRedirected = true;
        fSink = std::move(sink);
    }
    /// What Beast writes goes to the socket again.
    void restore() noexcept { fIsRedirected = false; }

    template <typename Handler>
    void handshake(Handler handler) {
        fTls->async_handshake(boost::asio::ssl::stream_base::server, std::move(handler));
    }

    /// Writes all of `bytes`, whatever Beast's writes are redirected to.
    /// REQUIRES: no other write is under way; `bytes` lives until the handler is called.
    template <typename Handler>
    void write(boost::asio::const_buffer bytes, Handler handler) {
        if (fTls != nullptr) {
            boost::asio::async_write(*fTls, bytes, std::move(handler));
        } else {
            boost::asio::async_write(fSocket, bytes, std::move(handler));
        }
    }

    // The requirements of an AsyncStream.

    template <typename Buffers, typename Handler>
    auto async_read_some(const Buffers& buffers, Handler&& handler) {
        return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
            [this](auto taken, const Buffers& to) {
                if (fTls != nullptr) {
                    fTls->async_read_some(to, std::move(taken));
                } else {
                    fSocket.async_read_some(to, std::move(taken));
                }
            },
            handler, buffers);
    }

    template <typename Buffers, typename Handler>
    auto async_write_some(const Buffers& buffers, Handler&& handler) {
        return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
            [this](auto taken, const Buffers& from) {
                if (fIsRedirected) {
                    divert(from, std::move(taken));
                } else if (fTls != nullptr) {
                    fTls->async_write_some(from, std::move(taken));
                } else {
                    fSocket.async_write_some(from, std::move(taken));
                }
            },
            handler, buffers);
    }

  private:
    using TlsStream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket&>;

    template <typename Buffers, typename Handler>
    void divert(const Buffers& from, Handler handler) {
        std::string bytes(boost::asio::buffer_size(from), '\0');
        boost::asio::buffer_copy(boost::asio::buffer(bytes), from);
        const auto size = bytes.size();
        if (fSink) fSink(std::move(bytes));
        boost::asio::post(
            fSocket.get_executor(),
            boost::beast::bind_handler(std::move(handler), boost::system::error_code(), size));
    }

    const std::shared_ptr<Socket> fShared;
    boost::asio::ip::tcp::socket& fSocket;
    std::unique_ptr<TlsStream> fTls;
    bool fIsRedirected = false;
    Sink fSink;
};

/// Beast ends a connection with these; its owner does that here, with patience.
inline void beast_close_socket(Wire& wire) { wire.shared()->shutdown(); }

inline void teardown(boost::beast::role_type /*role*/, Wire& /*wire*/,
                     boost::system::error_code& error) {
    error = {};
}

template <typename Handler>
void async_teardown(boost::beast::role_type /*role*/, Wire& wire, Handler&& handler) {
    boost::asio::post(
        wire.get_executor(),
        boost::beast::bind_handler(std::forward<Handler>(handler), boost::system::error_code()));
}

}  // namespace kirogateway
