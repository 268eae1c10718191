#include "Connection.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/websocket.hpp>
#include <optional>
#include <string>

#include "HttpText.hpp"
#include "Session.hpp"
#include "WebSocketFrame.hpp"
#include "Wire.hpp"

namespace kirogateway {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using boost::system::error_code;
using std::chrono::steady_clock;

/// When a burst is looked at first, so that a short one is soon over; and then, as long as it
/// goes on: each look takes time from the publisher, too.
constexpr std::chrono::microseconds kFirstLook{200};
constexpr std::chrono::microseconds kNextLook{1000};
constexpr std::size_t kCollectAtOnce = 128UL * 1024;
constexpr std::size_t kKeepBuffer = 64UL * 1024;  // what an idle connection may hold on to

using Parser = http::request_parser<http::string_body>;

/// One connection: first HTTP, then, if the access policy lets it, WebSocket.
class Connection final : public Guest,
                         public Carrier,
                         public std::enable_shared_from_this<Connection> {
  public:
    Connection(asio::ip::tcp::socket socket, House& house)
        : fHouse(house),
          fLimits(house.hub->options().limits),
          fStream(std::move(socket), house.tls.get()),
          fTimer(fStream.get_executor()),
          fDeadline(steady_clock::now() + fLimits.request),
          fPlace(house.guests.insert(house.guests.end(), this)) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() override { fHouse.guests.erase(fPlace); }

    void start();

    bool isAuthenticated() const noexcept override { return fSession.has_value(); }
    bool isOpen() const noexcept override { return fStream.next_layer().isOpen(); }
    void checkDeadline(TimePoint now) override;
    void drop() noexcept override;

    void awaitWritable() override;
    void awaitTail() override;
    void pageFailed() override;
    void close(std::uint16_t code, std::string_view reason, std::string rest) override;

  private:
    Wire& wire() { return fStream.next_layer(); }
    asio::ip::tcp::socket& socket() { return wire().socket(); }

    void readRequest();
    void onHeader(error_code error);
    void onRequest(error_code error);
    void answer(const Admission& admission, const Request* request);
    void onAnswered(error_code error, bool keepAlive);
    void upgrade();
    void readMessage();
    void onMessage(error_code error);
    void onEnd(error_code error);
    void tellPage();
    /// The page, if this is its connection.
    [[nodiscard]] Page* pageHere() const;
    void waitWritable();
    void waitTail(std::chrono::microseconds delay);
    void pump();
    void writeFarewell();
    void linger();
    void discard();

    House& fHouse;
    const Limits& fLimits;
    websocket::stream<Wire, false> fStream;
    asio::steady_timer fTimer;
    TimePoint fDeadline;
    bool fHasDeadline = true;
    const std::list<Guest*>::iterator fPlace;

    beast::flat_buffer fBuffer;
    std::unique_ptr<Parser> fParser;
    std::string fOut;  ///< being written: an answer, or what was collected for TLS
    std::optional<Session> fSession;
    bool fIsTold = false;     ///< Beast's writes go to the page
    bool fIsWriting = false;  ///< with `fOut`
    bool fIsClosing = false;
    std::string fFarewell;
};

// --- HTTP --------------------------------------------------------------------------------------

void Connection::start() {
    if (!wire().isTls()) return readRequest();
    wire().handshake([self = shared_from_this()](error_code error) {
        if (!error) self->readRequest();
    });
}

void Connection::readRequest() {
    fParser = std::make_unique<Parser>();
    fParser->header_limit(static_cast<std::uint32_t>(fLimits.headerSize));
    fParser->body_limit(boost::none);  // the access policy bounds what is read
    http::async_read_header(
        wire(), fBuffer, *fParser,
        [self = shared_from_this()](error_code error, std::size_t) { self->onHeader(error); });
}

void Connection::onHeader(error_code error) {
    if (error || !awaitsBody(requestOf(fParser->get()))) return onRequest(error);
    http::async_read(
        wire(), fBuffer, *fParser,
        [self = shared_from_this()](error_code failed, std::size_t) { self->onRequest(failed); });
}

void Connection::onRequest(error_code error) {
    const auto now = steady_clock::now();
    if (error) {
        const auto refusal = refusalOf(error);
        if (!refusal) return;
        fHouse.hub->peerLog().write("malformed request", error.message(), now);
        return answer(*refusal, nullptr);
    }
    const auto request = requestOf(fParser->get());
    const auto admission = fHouse.access->decide(request, now);
    if (admission.status >= 400) {
        // Nothing else of the request: its target or its fields may hold a secret.
        fHouse.hub->peerLog().write(
            "refused a request, " + std::string(admission.reason),
            request.hosts.empty() ? std::string_view() : request.hosts.front(), now);
    }
    if (admission.status == 101) return upgrade();
    answer(admission, &request);
}

void Connection::answer(const Admission& admission, const Request* request) {
    const bool keepAlive = keepsAlive(admission, request);
    fOut = responseText(admission, request, *fHouse.access);
    wire().write(asio::buffer(fOut),
                 [self = shared_from_this(), keepAlive](error_code error, std::size_t) {
                     self->onAnswered(error, keepAlive);
                 });
}

void Connection::onAnswered(error_code error, bool keepAlive) {
    if (error) return;
    fOut = {};
    if (!keepAlive) return linger();
    fDeadline = steady_clock::now() + fLimits.request;
    readRequest();
}

// --- WebSocket ---------------------------------------------------------------------------------

void Connection::upgrade() {
    const auto request = requestOf(fParser->get());
    fOut = responseText({101}, &request, *fHouse.access);
    wire().redirect({});  // Beast's answer names Beast
    fStream.read_message_max(fLimits.messageSize);
    fStream.auto_fragment(false);
    fStream.control_callback([this](websocket::frame_type, beast::string_view) {
        if (fSession) fSession->heard(steady_clock::now());
    });
    fStream.async_accept(fParser->get(), [self = shared_from_this()](error_code error) {
        if (error) return;
        self->wire().restore();
        self->fParser.reset();
        self->fBuffer.consume(self->fBuffer.size());
        self->fBuffer.shrink_to_fit();
        const int native = self->wire().isTls() ? -1 : self->socket().native_handle();
        self->fSession.emplace(self->fHouse.hub, *self, native);
        self->fDeadline = steady_clock::now() + self->fLimits.hello;
        self->wire().write(asio::buffer(self->fOut), [self](error_code failed, std::size_t) {
            self->fOut = {};
            if (!failed) self->readMessage();
        });
    });
}

void Connection::readMessage() {
    fStream.async_read(fBuffer, [self = shared_from_this()](error_code error, std::size_t) {
        self->onMessage(error);
    });
}

void Connection::onMessage(error_code error) {
    if (error) return onEnd(error);
    const auto now = steady_clock::now();
    const auto data = fBuffer.cdata();
    const std::string_view frame(static_cast<const char*>(data.data()), data.size());
    if (fIsClosing) {
        // The page may live on another connection by now.
    } else if (fStream.got_text()) {
        fSession->text(frame, shared_from_this(), now);
    } else {
        fSession->binary(frame, now);
    }
    fBuffer.consume(fBuffer.size());
    if (fBuffer.capacity() > kKeepBuffer) fBuffer.shrink_to_fit();
    tellPage();
    readMessage();
}

void Connection::tellPage() {
    if (fIsTold || fIsClosing || fSession->page() == nullptr) return;
    fIsTold = true;
    fHasDeadline = false;
    wire().redirect([page = std::weak_ptr<Page>(fSession->page())](std::string frames) {
        if (const auto there = page.lock()) {
            there->sendFrames(std::move(frames), steady_clock::now());
        }
    });
}

void Connection::onEnd(error_code error) {
    const auto now = steady_clock::now();
    const bool isProtocol =
        error.category() == make_error_code(websocket::error::closed).category();
    const bool isBroken = isProtocol && error != websocket::error::closed;
    if (isBroken && !fIsClosing) {
        fHouse.hub->peerLog().write("broken WebSocket frame", error.message(), now);
    }
    // A page that gives a connection up wants its view back.
    const bool isGivenUp = fStream.reason().code == static_cast<int>(wire::CloseCode::kGivenUp);
    fSession->ended(isProtocol && !isGivenUp, now);
    wire().redirect({});
    linger();
}

// --- Writing for the page ----------------------------------------------------------------------

Page* Connection::pageHere() const {
    if (fIsClosing || !fSession || fSession->page() == nullptr) return nullptr;
    return fSession->page()->carrier().get() == this ? fSession->page().get() : nullptr;
}

void Connection::awaitWritable() {
    asio::post(fTimer.get_executor(), [self = shared_from_this()] {
        self->wire().isTls() ? self->pump() : self->waitWritable();
    });
}

void Connection::waitWritable() {
    socket().async_wait(asio::ip::tcp::socket::wait_write,
                        [self = shared_from_this()](error_code error) {
                            auto* page = error ? nullptr : self->pageHere();
                            if (page != nullptr) page->writeMore(steady_clock::now());
                        });
}

void Connection::pump() {
    auto* page = pageHere();
    if (fIsWriting || page == nullptr) return;
    fOut.clear();
    if (!page->collect(fOut, kCollectAtOnce, steady_clock::now())) return;
    fIsWriting = true;
    wire().write(asio::buffer(fOut), [self = shared_from_this()](error_code error, std::size_t) {
        self->fIsWriting = false;
        if (error) return;
        self->fIsClosing ? self->writeFarewell() : self->pump();
    });
}

void Connection::awaitTail() {
    asio::post(fTimer.get_executor(), [self = shared_from_this()] { self->waitTail(kFirstLook); });
}

void Connection::waitTail(std::chrono::microseconds delay) {
    fTimer.expires_after(delay);
    fTimer.async_wait([self = shared_from_this()](error_code error) {
        auto* page = error ? nullptr : self->pageHere();
        if (page != nullptr && page->writeTail(steady_clock::now())) self->waitTail(kNextLook);
    });
}

void Connection::pageFailed() {
    asio::post(fTimer.get_executor(), [self = shared_from_this()] {
        if (self->fSession) self->fSession->pageFailed();
    });
}

// --- Ending ------------------------------------------------------------------------------------

void Connection::close(std::uint16_t code, std::string_view reason, std::string rest) {
    if (fIsClosing) return;
    fIsClosing = true;
    fHasDeadline = true;
    fDeadline = steady_clock::now() + fLimits.close;
    wire().redirect({});
    fFarewell = std::move(rest) + makeCloseFrame(code, reason);
    if (!fIsWriting) writeFarewell();
}

void Connection::writeFarewell() {
    fIsWriting = true;
    wire().write(asio::buffer(fFarewell),
                 [self = shared_from_this()](error_code error, std::size_t) {
                     error_code ignored;
                     if (!error) {
                         self->socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
                     }
                 });
}

void Connection::linger() {
    // Closing at once, with something unread, would take back what was written last.
    error_code ignored;
    socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    fHasDeadline = true;
    fDeadline = std::min(fDeadline, steady_clock::now() + fLimits.close);
    if (fSession) fDeadline = steady_clock::now() + fLimits.close;
    fBuffer.consume(fBuffer.size());
    discard();
}

void Connection::discard() {
    static constexpr std::size_t kPiece = 4096;
    socket().async_read_some(fBuffer.prepare(kPiece),
                             [self = shared_from_this()](error_code error, std::size_t) {
                                 if (!error) self->discard();
                             });
}

void Connection::checkDeadline(TimePoint now) {
    if (!fHasDeadline || now < fDeadline) return;
    // Publishers may write to the socket: only the page lets it go.
    if (pageHere() != nullptr) return tellPage();
    if (fSession && !fSession->isOver() && fSession->page() == nullptr) {
        fHouse.hub->peerLog().write("no hello in time", {}, now);
        return fSession->helloOverdue();
    }
    drop();
}

void Connection::drop() noexcept {
    error_code ignored;
    socket().close(ignored);
}

}  // namespace

void serve(asio::ip::tcp::socket socket, House& house) {
    std::make_shared<Connection>(std::move(socket), house)->start();
}

}  // namespace kirogateway
