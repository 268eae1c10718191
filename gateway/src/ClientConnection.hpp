#pragma once

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Budget.hpp"
#include "ReadPace.hpp"
#include "ServedConnection.hpp"
#include "Session.hpp"
#include "Wakeup.hpp"
#include "Wire.hpp"

namespace kirogateway {

/// One connection: first HTTP (ClientConnectionHttp.cpp), then, if the access policy lets it,
/// WebSocket (ClientConnection.cpp). It lives as long as an operation on its socket is under way,
/// or reading is held.
///
/// There are two ways to the socket. Frames for a view go directly, from whatever thread publishes,
/// see `View`. What only this connection knows (answers to requests, good-byes, and with TLS, whose
/// state belongs to one thread, the frames too) is written from here, one piece after the other.
class ClientConnection final : public ServedConnection,
                               public Wakeup::Target,
                               public std::enable_shared_from_this<ClientConnection> {
  public:
    ClientConnection(boost::asio::ip::tcp::socket socket, ServerContext& context);
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;
    ~ClientConnection() override;

    void start();

    bool isAuthenticated() const noexcept override { return fSession.has_value(); }
    bool isOpen() const noexcept override { return !fIsGivenUp; }
    void checkTime(TimePoint now) noexcept override;
    void drop() noexcept override;

    void request(Request what) noexcept override;
    void close(std::uint16_t code, std::string_view reason, std::string rest) noexcept override;
    void cut() noexcept override { drop(); }
    void readOn() noexcept override;
    bool isReadingHeld() const noexcept override { return fHeld != nullptr; }
    void serve(unsigned what) noexcept override;

  private:
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;
    using ErrorCode = boost::system::error_code;

    /// The handler of every operation. What is thrown in it ends the connection, and so does its
    /// own end without having been called: then the operation was lost for lack of memory.
    template <typename Call>
    class Handler {
      public:
        Handler(std::shared_ptr<ClientConnection> self, Call call)
            : fSelf(std::move(self)), fCall(std::move(call)) {}
        Handler(Handler&&) noexcept = default;
        Handler& operator=(Handler&&) = delete;
        Handler(const Handler&) = delete;
        Handler& operator=(const Handler&) = delete;
        ~Handler() {
            if (fSelf != nullptr) fSelf->operationLost();
        }
        template <typename... Arguments>
        void operator()(const Arguments&... arguments) {
            const auto self = std::move(fSelf);
            self->guard([&] { fCall(*self, arguments...); });
        }

      private:
        std::shared_ptr<ClientConnection> fSelf;
        Call fCall;
    };
    template <typename Call>
    [[nodiscard]] Handler<Call> handler(Call call) {
        return {shared_from_this(), std::move(call)};
    }
    /// The handler of a write. One that fails ends the connection: with TLS it may be for lack of
    /// memory, of which whoever reads from the socket learns nothing.
    template <typename Call>
    [[nodiscard]] auto writeHandler(Call call) {
        return handler([call](ClientConnection& self, ErrorCode error, std::size_t) {
            error ? self.drop() : call(self);
        });
    }
    template <typename Call>
    void guard(const Call& call) noexcept {
        if (fIsGivenUp) return;
        try {
            call();
        } catch (...) {
            fSite->context->log.writeCaught("a connection was given up");
            drop();
        }
    }
    /// Ends the connection, on which nothing is waited for any more.
    void operationLost() noexcept;

    [[nodiscard]] const Limits& limits() const noexcept { return fSite->context->options.limits; }
    [[nodiscard]] GuardedLog& peerLog() const noexcept { return fSite->context->peerLog; }
    [[nodiscard]] Wire& wire() { return fStream.next_layer(); }
    [[nodiscard]] boost::asio::ip::tcp::socket& socket() { return fSocket->native(); }

    /// The request that was read, for the site that its target names.
    [[nodiscard]] ::kirogateway::Request requestOfSite() const;
    void readRequest();
    void onHeader(ErrorCode error);
    void onRequest(ErrorCode error);
    void answer(const Admission& admission, const ::kirogateway::Request* request);
    /// Writes these, and then what is left in `fBody`.
    void writeAnswer(std::string_view bytes, bool keepAlive);
    void onAnswered(bool keepAlive);
    void upgrade();
    void beginSession();

    void readMore();
    void readAfter(ReadPace::Duration rest);
    void onBytes(ErrorCode error);
    void tellView();
    void onEnd(ErrorCode error);
    void waitWritable();
    void waitTail(std::chrono::microseconds delay);
    void pump();
    void writeFarewell();
    void linger();
    void discard();

    ServerContext& fContext;
    std::shared_ptr<Site> fSite;  ///< the root until there is a request
    const std::shared_ptr<Socket> fSocket;
    boost::beast::websocket::stream<Wire, false> fStream;
    boost::asio::steady_timer fTimer;
    boost::asio::steady_timer fRest;  ///< until it is read from again
    TimePoint fDeadline;
    bool fHasDeadline = true;
    ReadPace fReadPace;
    const std::list<ServedConnection*>::iterator fPlace;

    boost::beast::flat_buffer fBuffer;
    std::unique_ptr<Parser> fParser;
    std::string fOut;        ///< being written: an answer, or what was collected for TLS
    std::string_view fBody;  ///< of a large file, what of it has not been written
    std::shared_ptr<const AssetTable> fAssets;  ///< which have that
    std::optional<Session> fSession;
    bool fIsWithinMessage = false;
    bool fIsTold = false;     ///< Beast's writes go to the view
    bool fIsWriting = false;  ///< with `fOut`
    bool fIsClosing = false;
    bool fIsGivenUp = false;
    bool fAsksAgain = false;                  ///< whether it may read, at the next look at the time
    std::shared_ptr<ClientConnection> fHeld;  ///< itself, while it may not read
    std::string fFarewell;
    Charge fFarewellCharge;  ///< for the rest of a frame in it
};

}  // namespace kirogateway
