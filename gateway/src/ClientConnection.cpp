#include "ClientConnection.hpp"

#include <algorithm>

#include "WebSocketFrame.hpp"

namespace kirogateway {
namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using asio::ip::tcp;
using std::chrono::steady_clock;

/// When a burst is looked at first, so that a short one is soon over; and then, as long as it
/// goes on: each look takes time from the publisher, too.
constexpr std::chrono::microseconds kFirstLook{200};
constexpr std::chrono::microseconds kNextLook{1000};
constexpr std::size_t kCollectAtOnce = 128UL * 1024;
/// A message is read in pieces, so that a long one gives the thread back after each. The first one
/// is small: most messages are, and an idle connection holds on to its memory.
constexpr std::size_t kFirstPiece = 1024;
constexpr std::size_t kPiece = 16UL * 1024;

}  // namespace

ClientConnection::ClientConnection(tcp::socket socket, ServerContext& context)
    : fContext(context),
      fSite(context.sites->root()),
      fSocket(std::make_shared<Socket>(std::move(socket))),
      fStream(fSocket, context.tls.get()),
      fTimer(fStream.get_executor()),
      fRest(fStream.get_executor()),
      fDeadline(steady_clock::now() + limits().request),
      fReadPace(limits().readRate),
      fPlace(context.connections.insert(context.connections.end(), this)) {}

ClientConnection::~ClientConnection() {
    if (fSession) {
        fSession->ended(false, steady_clock::now());
        --fSite->connections;
    }
    fContext.connections.erase(fPlace);
}

// --- Reading -----------------------------------------------------------------------------------

void ClientConnection::readMore() {
    if (fIsGivenUp) return;  // by what was read last
    const auto reading = fIsClosing ? Session::Reading::kNow : fSession->mayRead();
    fAsksAgain = reading == Session::Reading::kLater;
    if (reading != Session::Reading::kNow) {
        fHeld = shared_from_this();
        return;
    }
    fStream.async_read_some(
        fBuffer, fIsWithinMessage ? kPiece : kFirstPiece,
        handler([](ClientConnection& self, ErrorCode error, std::size_t) { self.onBytes(error); }));
}

void ClientConnection::readOn() noexcept {
    const auto self = std::exchange(fHeld, nullptr);
    if (self != nullptr) guard([this] { readMore(); });
}

void ClientConnection::onBytes(ErrorCode error) {
    if (error) return onEnd(error);
    const auto now = steady_clock::now();
    const auto data = fBuffer.cdata();
    const std::string_view bytes(static_cast<const char*>(data.data()), data.size());
    const bool isLast = fStream.is_message_done();
    if (!fIsClosing) {  // else the page may live on another connection by now
        fStream.got_text() ? fSession->text(bytes, isLast, now)
                           : fSession->binary(bytes, isLast, now);
    }
    fIsWithinMessage = !isLast;
    fBuffer.consume(fBuffer.size());
    if (isLast && fBuffer.capacity() > kFirstPiece) fBuffer.shrink_to_fit();
    tellView();
    readAfter(fReadPace.read(bytes.size(), now));
}

void ClientConnection::readAfter(ReadPace::Duration rest) {
    if (rest == ReadPace::Duration::zero()) return readMore();
    fRest.expires_after(rest);
    fRest.async_wait(handler([](ClientConnection& self, ErrorCode) { self.readMore(); }));
}

void ClientConnection::tellView() {
    if (fIsTold || fIsClosing || fSession->view() == nullptr) return;
    fIsTold = true;
    fHasDeadline = false;
    wire().redirect([view = std::weak_ptr<View>(fSession->view())](std::string frames) {
        // A page that pings and does not read its answers gets no more of them.
        const auto there = view.lock();
        if (there != nullptr && !there->hasManyAnswersWaiting()) {
            there->sendFrames(std::move(frames));
        }
    });
}

void ClientConnection::onEnd(ErrorCode error) {
    const bool isProtocol =
        error.category() == make_error_code(websocket::error::closed).category();
    const bool isBroken = isProtocol && error != websocket::error::closed;
    if (isBroken && !fIsClosing) peerLog().write("broken WebSocket frame", error.message());
    // A page that gives a connection up wants its view back.
    const bool isGivenUp = fStream.reason().code == static_cast<int>(wire::CloseCode::kGivenUp);
    fSession->ended(isProtocol && !isGivenUp, steady_clock::now());
    wire().redirect({});
    linger();
}

// --- Writing for the view ----------------------------------------------------------------------

void ClientConnection::request(Request what) noexcept {
    fContext.wakeup->request(*this, what, [this] { return weak_from_this().lock(); });
}

void ClientConnection::serve(unsigned what) noexcept {
    guard([&] {
        if ((what & kFailed) != 0 && fSession) fSession->viewFailed();
        if ((what & kWrite) != 0) wire().isTls() ? pump() : waitWritable();
        if ((what & kTail) != 0) waitTail(kFirstLook);
    });
}

void ClientConnection::waitWritable() {
    socket().async_wait(tcp::socket::wait_write,
                        handler([](ClientConnection& self, ErrorCode error) {
                            auto* view = error ? nullptr : self.fSession->viewHere();
                            if (view != nullptr) view->writeMore();
                        }));
}

void ClientConnection::waitTail(std::chrono::microseconds delay) {
    fTimer.expires_after(delay);
    fTimer.async_wait(handler([](ClientConnection& self, ErrorCode error) {
        auto* view = error ? nullptr : self.fSession->viewHere();
        if (view != nullptr && view->writeTail(steady_clock::now())) self.waitTail(kNextLook);
    }));
}

void ClientConnection::pump() {
    auto* const view = fIsClosing ? nullptr : fSession->viewHere();
    if (fIsWriting || view == nullptr) return;
    fOut.clear();
    if (!view->collect(fOut, kCollectAtOnce)) return;
    fIsWriting = true;
    wire().write(asio::buffer(fOut), writeHandler([](ClientConnection& self) {
                     self.fIsWriting = false;
                     self.fIsClosing ? self.writeFarewell() : self.pump();
                 }));
}

// --- Ending ------------------------------------------------------------------------------------

void ClientConnection::close(std::uint16_t code, std::string_view reason,
                             std::string rest) noexcept {
    if (fIsClosing) return;
    // The rest is a copy that is this connection's alone, up to its end.
    if (!rest.empty() && !fFarewellCharge.grow(fSite->context->memory, rest.size())) return drop();
    guard([&] {
        fIsClosing = true;
        fHasDeadline = true;
        fDeadline = steady_clock::now() + limits().close;
        wire().redirect({});
        fFarewell = std::move(rest);
        fFarewell += makeCloseFrame(code, reason);
        if (!fIsWriting) writeFarewell();
    });
    readOn();  // its answer is waited for
}

void ClientConnection::writeFarewell() {
    fIsWriting = true;
    wire().write(asio::buffer(fFarewell), writeHandler([](ClientConnection& self) {
                     self.fFarewell = {};
                     self.fFarewellCharge = Charge();
                     self.fSocket->shutdownWriting();
                 }));
}

void ClientConnection::linger() {
    // Closing at once, with something unread, would take back what was written last.
    fSocket->shutdownWriting();
    const auto now = steady_clock::now();
    fDeadline = fSession || !fHasDeadline ? now + limits().close
                                          : std::min(fDeadline, now + limits().close);
    fHasDeadline = true;
    fBuffer.consume(fBuffer.size());
    discard();
}

void ClientConnection::discard() {
    static constexpr std::size_t kAtOnce = 4096;
    socket().async_read_some(fBuffer.prepare(kAtOnce),
                             handler([](ClientConnection& self, ErrorCode error, std::size_t) {
                                 if (!error) self.discard();
                             }));
}

void ClientConnection::checkTime(TimePoint now) noexcept {
    // What is done here may let go of the last that keeps this.
    const auto self = shared_from_this();
    if (fIsGivenUp) return fHeld.reset();
    if (fAsksAgain) readOn();
    if (!fHasDeadline || now < fDeadline) return;
    if (fSession && !fSession->isOver() && fSession->view() == nullptr) {
        peerLog().write("no hello in time", {}, now);
        return fSession->helloOverdue();
    }
    drop();
}

void ClientConnection::drop() noexcept {
    if (fIsGivenUp) return;
    fIsGivenUp = true;
    if (fSession) fSession->ended(false, steady_clock::now());
    fSocket->shutdown();
}

void ClientConnection::operationLost() noexcept {
    if (fIsGivenUp) return;
    fSite->context->log.write("a connection was given up", "an operation was lost");
    drop();
}

void serve(tcp::socket socket, ServerContext& context) {
    std::make_shared<ClientConnection>(std::move(socket), context)->start();
}

}  // namespace kirogateway
