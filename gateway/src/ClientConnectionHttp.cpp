#include <boost/beast/http/read.hpp>
#include <string_view>
#include <utility>

#include "ClientConnection.hpp"
#include "HttpText.hpp"

namespace kirogateway {
namespace {

/// So much of a file is written at a time, from where it is: nobody's slowness makes copies, and
/// each piece has the time for an answer.
constexpr std::size_t kBodyPiece = 64UL * 1024;

}  // namespace

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using std::chrono::steady_clock;

void ClientConnection::start() {
    if (!wire().isTls()) return readRequest();
    wire().handshake(handler([](ClientConnection& self, ErrorCode error) {
        if (!error) self.readRequest();
    }));
}

void ClientConnection::readRequest() {
    fParser = std::make_unique<Parser>();
    fParser->header_limit(static_cast<std::uint32_t>(limits().headerSize));
    fParser->body_limit(boost::none);  // the access policy bounds what is read
    http::async_read_header(wire(), fBuffer, *fParser,
                            handler([](ClientConnection& self, ErrorCode error, std::size_t) {
                                self.onHeader(error);
                            }));
}

::kirogateway::Request ClientConnection::requestOfSite() const {
    auto request = requestOf(fParser->get());
    request.site = request.target.substr(0, fSite->prefix.size());
    request.target.remove_prefix(request.site.size());
    return request;
}

void ClientConnection::onHeader(ErrorCode error) {
    if (error) return onRequest(error);
    fSite = fContext.sites->find(requestOf(fParser->get()));
    if (!awaitsBody(requestOfSite())) return onRequest(error);
    http::async_read(wire(), fBuffer, *fParser,
                     handler([](ClientConnection& self, ErrorCode failed, std::size_t) {
                         self.onRequest(failed);
                     }));
}

void ClientConnection::onRequest(ErrorCode error) {
    if (error) {
        const auto refusal = refusalOf(error);
        if (!refusal) return;
        peerLog().write("malformed request", error.message());
        return answer(*refusal, nullptr);
    }
    const auto request = requestOfSite();
    auto admission = fSite->access->decide(request, steady_clock::now());
    // They would be lost, or only their first part: a client has to wait for the answer.
    if (admission.status == 101 && fBuffer.size() > 0)
        admission = {400, "frames before the answer"};
    // The server's limit is for all sites together.
    if (admission.status == 101 && fSite->connections >= limits().connections) {
        admission = {503, "too many pages of one session"};
        admission.comesLater = true;
    }
    if (admission.status >= 400) {
        // Nothing else of the request: its target or its fields may hold a secret.
        const auto why = admission.logged.empty() ? admission.reason : admission.logged;
        peerLog().write("refused a request, " + std::string(why),
                        request.hosts.empty() ? std::string_view() : request.hosts.front());
    }
    if (admission.status == 101) return upgrade();
    answer(admission, &request);
}

void ClientConnection::answer(const Admission& admission, const ::kirogateway::Request* request) {
    const bool keepAlive = keepsAlive(admission, request);
    fOut = responseText(admission, request, *fSite->access);
    fBody = responseBody(admission, request);
    if (fBody.size() <= kBodyPiece) fOut += std::exchange(fBody, {});
    fAssets = admission.assets;
    writeAnswer(fOut, keepAlive);
}

void ClientConnection::writeAnswer(std::string_view bytes, bool keepAlive) {
    fDeadline = steady_clock::now() + limits().request;  // to take it
    wire().write(asio::buffer(bytes.data(), bytes.size()),
                 writeHandler([keepAlive](ClientConnection& self) {
                     if (self.fBody.empty()) return self.onAnswered(keepAlive);
                     const auto piece = self.fBody.substr(0, kBodyPiece);
                     self.fBody.remove_prefix(piece.size());
                     self.writeAnswer(piece, keepAlive);
                 }));
}

void ClientConnection::onAnswered(bool keepAlive) {
    fOut = {};
    fAssets = nullptr;
    if (!keepAlive) return linger();
    fDeadline = steady_clock::now() + limits().request;
    readRequest();
}

void ClientConnection::upgrade() {
    const auto request = requestOf(fParser->get());
    fOut = responseText({101}, &request, *fSite->access);
    wire().redirect({});  // Beast's answer names Beast
    fStream.read_message_max(limits().messageSize);
    fStream.auto_fragment(false);
    fStream.control_callback([this](beast::websocket::frame_type, beast::string_view) {
        if (fSession) fSession->heard(steady_clock::now());
    });
    fStream.async_accept(fParser->get(), handler([](ClientConnection& self, ErrorCode error) {
                             if (!error) self.beginSession();
                         }));
}

void ClientConnection::beginSession() {
    wire().restore();
    fParser.reset();
    fBuffer.consume(fBuffer.size());
    fBuffer.shrink_to_fit();
    fReadPace = ReadPace(limits().readRate);
    ++fSite->connections;
    fSession.emplace(fSite->services, ViewRegistry::Arrival{*this, fSocket, !wire().isTls()});
    fDeadline = steady_clock::now() + limits().hello;
    wire().write(asio::buffer(fOut), writeHandler([](ClientConnection& self) {
                     self.fOut = {};
                     self.readMore();
                 }));
}

}  // namespace kirogateway
