#include "Server.hpp"

#include <fcntl.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cerrno>
#include <csignal>
#include <exception>
#include <list>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "Program.hpp"

namespace recording_tool {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using std::chrono::steady_clock;
using ErrorCode = boost::system::error_code;

constexpr std::size_t kMostConnections = 32;
/// For a request, from the first wait on; and for each piece of an answer to be taken.
constexpr std::chrono::seconds kPatience{30};
/// What is still read of a request that was refused.
constexpr std::chrono::seconds kLinger{2};
constexpr std::uint32_t kMostHeader = 8192;
/// Of a recording, in memory at a time.
constexpr std::uint64_t kPiece = 256UL * 1024;

std::string_view viewOf(beast::string_view text) { return {text.data(), text.size()}; }

class Connection;

struct Context {
    Access& access;
    std::list<Connection*> connections{};  ///< the oldest first
};

/// Lives as long as an operation on its socket is under way.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(tcp::socket socket, Context& context)
        : fStream(std::move(socket)),
          fContext(context),
          fPlace(context.connections.insert(context.connections.end(), this)) {
        ErrorCode ignored;
        fStream.socket().set_option(tcp::no_delay(true), ignored);
    }
    ~Connection() { fContext.connections.erase(fPlace); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Whether nothing is lost when it ends: a browser then asks on another one.
    [[nodiscard]] bool isIdle() const noexcept { return fIsIdle; }
    void drop() noexcept {
        fIsIdle = false;
        fStream.close();
    }

    void readRequest();

  private:
    using Message = http::request<http::string_body>;

    void onRequest(ErrorCode error);
    /// What `message` has once; nothing if it has none. Takes down when there are several.
    std::optional<std::string_view> field(const Message& message, http::field name,
                                          Request& request) const;
    [[nodiscard]] Request requestOf(const Message& message) const;
    void answer(Answer answer, bool isHead);
    /// The head of `fAnswer`, whose body has so many bytes.
    [[nodiscard]] std::string headText(std::uint64_t length) const;
    /// The next piece of a recording, empty behind the last one; nothing when it cannot be read.
    [[nodiscard]] std::optional<std::string> nextPiece();
    void write();
    void onWritten(ErrorCode error);
    /// Reads on for a while: closing with something unread would take back what was written last.
    void linger();
    void discard();

    beast::tcp_stream fStream;
    Context& fContext;
    const std::list<Connection*>::iterator fPlace;
    beast::flat_buffer fBuffer{kMostHeader + served::kMaxBody};
    std::optional<http::request_parser<http::string_body>> fParser;
    Answer fAnswer;
    std::string fOut;  ///< being written
    bool fIsKeptAlive = false;
    bool fIsIdle = true;
};

void Connection::readRequest() {
    fIsIdle = true;
    fParser.emplace();
    fParser->header_limit(kMostHeader);
    fParser->body_limit(served::kMaxBody);
    fStream.expires_after(kPatience);
    http::async_read(
        fStream, fBuffer, *fParser,
        [self = shared_from_this()](ErrorCode error, std::size_t) { self->onRequest(error); });
}

std::optional<std::string_view> Connection::field(const Message& message, http::field name,
                                                  Request& request) const {
    const auto found = message.equal_range(name);
    if (found.first == found.second) return std::nullopt;
    if (std::next(found.first) != found.second) request.isAmbiguous = true;
    return viewOf(found.first->value());
}

Request Connection::requestOf(const Message& message) const {
    Request request;
    request.method = viewOf(message.method_string());
    request.target = viewOf(message.target());
    request.host = field(message, http::field::host, request);
    request.origin = field(message, http::field::origin, request);
    request.authorization = field(message, http::field::authorization, request);
    request.range = field(message, http::field::range, request);
    request.isAmbiguous |= message.count(http::field::transfer_encoding) > 0;
    request.body = message.body();
    request.isKeptAlive = message.keep_alive();
    return request;
}

/// Of a request that the parser gave up; 0 if there was none.
unsigned statusOf(ErrorCode error) {
    if (error.category() != make_error_code(http::error::bad_method).category()) return 0;
    if (error == http::error::end_of_stream || error == http::error::partial_message) return 0;
    if (error == http::error::header_limit) return 431;
    return error == http::error::body_limit ? 413 : 400;
}

void Connection::onRequest(ErrorCode error) {
    fIsIdle = false;
    if (error) {
        if (const auto status = statusOf(error); status != 0) {
            fIsKeptAlive = false;
            answer({status, "malformed\n"}, false);
        }
        return;
    }
    const auto request = requestOf(fParser->get());
    auto decided = fContext.access.decide(request, steady_clock::now());
    fIsKeptAlive = request.isKeptAlive && decided.status < 400;
    answer(std::move(decided), request.method == "HEAD");
}

void Connection::answer(Answer answer, bool isHead) {
    fAnswer = std::move(answer);
    if (isHead) {
        fOut = headText(fAnswer.body.size() + fAnswer.size);
        fAnswer.size = 0;
    } else {
        auto piece = nextPiece();
        if (!piece) fAnswer = {500, "the recording cannot be read\n"};
        fOut = std::string(fAnswer.body) + piece.value_or("");
        fOut.insert(0, headText(fOut.size() + fAnswer.size));
    }
    write();
}

std::string Connection::headText(std::uint64_t length) const {
    // Written here and not by the parser's library, which would name itself and its version.
    const auto reason = http::obsolete_reason(static_cast<http::status>(fAnswer.status));
    return "HTTP/1.1 " + std::to_string(fAnswer.status) + ' ' + std::string(viewOf(reason)) +
           "\r\nContent-Type: " + std::string(fAnswer.type) +
           "\r\nContent-Length: " + std::to_string(length) +
           "\r\nConnection: " + (fIsKeptAlive ? "keep-alive" : "close") + "\r\n" + fAnswer.fields +
           Access::commonFields() + "\r\n";
}

std::optional<std::string> Connection::nextPiece() {
    const auto size = std::min(fAnswer.size, kPiece);
    if (size == 0) return std::string();
    try {
        auto piece = fAnswer.source->read(fAnswer.offset, size);
        fAnswer.offset += size;
        fAnswer.size -= size;
        return piece;
    } catch (const std::system_error& error) {
        complain(error.what());  // somebody has shortened it, or its disk is gone
        return std::nullopt;
    }
}

void Connection::write() {
    fStream.expires_after(kPatience);
    asio::async_write(
        fStream, asio::buffer(fOut),
        [self = shared_from_this()](ErrorCode error, std::size_t) { self->onWritten(error); });
}

void Connection::onWritten(ErrorCode error) {
    if (error) return;
    if (fAnswer.size > 0) {
        auto piece = nextPiece();
        if (!piece) return;  // that less has come than was announced says it
        fOut = *std::move(piece);
        return write();
    }
    fOut = {};
    fIsKeptAlive ? readRequest() : linger();
}

void Connection::linger() {
    ErrorCode ignored;
    fStream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    fStream.expires_after(kLinger);
    discard();
}

void Connection::discard() {
    fBuffer.clear();
    fStream.async_read_some(fBuffer.prepare(kMostHeader),
                            [self = shared_from_this()](ErrorCode error, std::size_t) {
                                if (!error) self->discard();
                            });
}

bool isIgnored(int signal) {
    struct sigaction known {};
    return sigaction(signal, nullptr, &known) == 0 && known.sa_handler == SIG_IGN;
}

/// A descriptor to read when the program is asked to end. Not Boost's, which does not look whether
/// the kernel took its own one on, and would then never hear of it.
int makeSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM}) {
        if (!isIgnored(signal)) sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
    return descriptor;
}

}  // namespace

class Server::Impl {
  public:
    explicit Impl(std::uint16_t port);

    [[nodiscard]] std::uint16_t port() const noexcept { return fPort; }
    void run(Access& access);

  private:
    void accept();
    void onAccepted(ErrorCode error, tcp::socket socket);

    std::optional<Context> fContext;  // before what may still hold connections
    asio::io_context fIo{1};
    asio::posix::stream_descriptor fSignals{fIo};
    tcp::acceptor fAcceptor{fIo};
    asio::steady_timer fRest{fIo};
    std::uint16_t fPort = 0;
};

Server::Impl::Impl(std::uint16_t port) {
    fSignals.assign(makeSignals());
    const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), port);
    try {
        fAcceptor.open(endpoint.protocol());
        // It is no business of a browser's that is started from here.
        ::fcntl(fAcceptor.native_handle(), F_SETFD, FD_CLOEXEC);
        fAcceptor.set_option(tcp::acceptor::reuse_address(true));
        fAcceptor.bind(endpoint);
        fAcceptor.listen();
        fPort = fAcceptor.local_endpoint().port();
    } catch (const boost::system::system_error& error) {
        throw std::system_error(error.code(), "port " + std::to_string(port));
    }
}

void Server::Impl::accept() {
    fAcceptor.async_accept(
        [this](ErrorCode error, tcp::socket socket) { onAccepted(error, std::move(socket)); });
}

void Server::Impl::onAccepted(ErrorCode error, tcp::socket socket) {
    if (error) {
        // No descriptors, say: at once it would be the same again.
        fRest.expires_after(std::chrono::milliseconds(100));
        return fRest.async_wait([this](ErrorCode) { accept(); });
    }
    accept();
    auto& connections = fContext->connections;
    if (connections.size() >= kMostConnections) {
        const auto idle = std::ranges::find_if(connections, &Connection::isIdle);
        if (idle == connections.end()) return;
        (*idle)->drop();
    }
    std::make_shared<Connection>(std::move(socket), *fContext)->readRequest();
}

void Server::Impl::run(Access& access) {
    fContext.emplace(Context{access});
    fSignals.async_wait(asio::posix::stream_descriptor::wait_read,
                        [this](ErrorCode) { fIo.stop(); });
    accept();
    while (!fIo.stopped()) {
        try {
            fIo.run();
        } catch (const std::exception& error) {
            complain(error.what());  // it has cost one connection
        }
    }
}

Server::Server(std::uint16_t port) try : fImpl(std::make_unique<Impl>(port)) {
} catch (const boost::system::system_error& error) {
    // Without the place within Boost.
    throw std::system_error(error.code(), "the server cannot start");
}
Server::~Server() = default;
std::uint16_t Server::port() const { return fImpl->port(); }
void Server::run(Access& access) { fImpl->run(access); }

}  // namespace recording_tool
