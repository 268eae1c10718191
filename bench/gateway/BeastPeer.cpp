#include "BeastPeer.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <future>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;
using Stream = websocket::stream<tcp::socket>;

tcp::endpoint anyPort() { return {asio::ip::address_v4::loopback(), 0}; }

std::string_view viewOf(const boost::beast::flat_buffer& buffer) {
    const auto data = buffer.cdata();
    return {static_cast<const char*>(data.data()), data.size()};
}

}  // namespace

struct BeastPeer::Impl {
    asio::io_context context{1};
    tcp::acceptor acceptor{context, anyPort()};
    Socket client{acceptor.local_endpoint().port()};  // the backlog takes it
    Stream stream{acceptor.accept()};
    boost::beast::flat_buffer buffer;
};

BeastPeer::BeastPeer() : fImpl(std::make_unique<Impl>()) {
    fImpl->stream.next_layer().set_option(tcp::no_delay(true));
    fImpl->stream.auto_fragment(false);
    fImpl->stream.text(true);
    auto accepted = std::async(std::launch::async, [this] { fImpl->stream.accept(); });
    fImpl->client.upgrade(fImpl->acceptor.local_endpoint().port(), {});
    accepted.get();
}

BeastPeer::~BeastPeer() = default;

Client BeastPeer::takeClient() { return Client(std::move(fImpl->client)); }

void BeastPeer::write(std::string_view text) {
    fImpl->stream.write(asio::buffer(text.data(), text.size()));
}

std::string_view BeastPeer::read() {
    fImpl->buffer.clear();
    error_code error;
    fImpl->stream.read(fImpl->buffer, error);
    return error ? std::string_view() : viewOf(fImpl->buffer);
}

// --- Idle --------------------------------------------------------------------------------------

namespace {

struct IdlePeer {
    explicit IdlePeer(tcp::socket socket) : stream(std::move(socket)) {
        stream.next_layer().set_option(tcp::no_delay(true));
        stream.text(true);
    }

    void start() {
        stream.async_accept([this](error_code error) {
            if (!error) readGreeting();
        });
    }
    void readGreeting() {
        stream.async_read(buffer, [this](error_code error, std::size_t) {
            if (!error) answer();
        });
    }
    void answer() {
        stream.async_write(buffer.cdata(), [this](error_code error, std::size_t) {
            buffer.clear();
            if (!error) stream.async_read(buffer, [](error_code, std::size_t) {});
        });
    }

    Stream stream;
    boost::beast::flat_buffer buffer;
};

}  // namespace

struct IdleBeastPeers::Impl {
    void accept() {
        acceptor.async_accept([this](error_code error, tcp::socket socket) {
            if (error) return;
            peers.push_back(std::make_unique<IdlePeer>(std::move(socket)));
            peers.back()->start();
            accept();
        });
    }

    asio::io_context context{1};
    tcp::acceptor acceptor{context, anyPort()};
    std::vector<std::unique_ptr<IdlePeer>> peers;
    std::thread thread;
};

IdleBeastPeers::IdleBeastPeers() : fImpl(std::make_unique<Impl>()) {
    fImpl->accept();
    fImpl->thread = std::thread([this] { fImpl->context.run(); });
}

IdleBeastPeers::~IdleBeastPeers() {
    fImpl->context.stop();
    fImpl->thread.join();
}

std::uint16_t IdleBeastPeers::port() const { return fImpl->acceptor.local_endpoint().port(); }

}  // namespace bench
