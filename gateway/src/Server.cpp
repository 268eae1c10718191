#include "Server.hpp"

#include <algorithm>
#include <boost/asio/post.hpp>

#include "Endpoint.hpp"

namespace kirogateway {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kAcceptAgain{100};
/// How long a stopping gateway waits for its pages to close their ends.
constexpr milliseconds kFarewell{250};
constexpr milliseconds kStoppingPeriod{5};

/// Limits are kept with a quarter of the shortest as error, without waking up all the time.
milliseconds periodOf(const Limits& limits) {
    const auto shortest = std::min({limits.request, limits.hello, limits.queue, limits.block,
                                    limits.ping, limits.gone, limits.comeback, limits.close});
    return std::clamp(shortest / 4, milliseconds(5), milliseconds(100));
}

}  // namespace

Server::Server(std::shared_ptr<Hub> hub)
    : fAcceptor(listenOn(fContext, hub->options())), fTick(fContext), fRetry(fContext) {
    const auto& options = hub->options();
    fPeriod = periodOf(options.limits);
    fHouse.tls = tlsOf(options);
    fHouse.hub = std::move(hub);
    fPort = fAcceptor.local_endpoint().port();
}

void Server::start(std::unique_ptr<AccessPolicy> access) {
    fHouse.access = std::move(access);
    accept();
    fThread = std::thread([this] { run(); });
}

void Server::run() noexcept {
    for (;;) {
        try {
            fContext.run();
            return;
        } catch (const std::exception& error) {
            // Lack of memory, most likely. Its connection goes on without whatever failed; the
            // time limits end it if it cannot.
            fHouse.hub->log().write("the gateway's thread", error.what(), steady_clock::now());
        }
    }
}

void Server::accept() {
    fAcceptor.async_accept([this](const error_code& error, tcp::socket socket) {
        onAccepted(error, std::move(socket));
    });
}

void Server::onAccepted(const error_code& error, tcp::socket socket) {
    if (fIsStopping) return;
    if (!error) {
        accept();  // first: whatever is thrown below, the next one is accepted
        return admit(std::move(socket));
    }
    // Out of descriptors, most likely: to try again at once would be to spin.
    fHouse.hub->log().write("cannot accept", error.message(), steady_clock::now());
    fRetry.expires_after(kAcceptAgain);
    fRetry.async_wait([this](const error_code& cancelled) {
        if (!cancelled) accept();
    });
}

void Server::admit(tcp::socket socket) {
    static constexpr std::string_view kFull =
        "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    const auto& limits = fHouse.hub->options().limits;
    error_code ignored;
    if (fHouse.guests.size() >= limits.connections) {
        fHouse.hub->peerLog().write("too many connections", {}, steady_clock::now());
        socket.non_blocking(true, ignored);
        socket.write_some(asio::buffer(kFull), ignored);
        return;
    }
    evictOldest();
    closeOnExec(socket.native_handle());
    socket.set_option(tcp::no_delay(true), ignored);
    serve(std::move(socket), fHouse);
    if (!fIsTicking) tick();
}

void Server::evictOldest() {
    // To refuse the newest would let a few silent connections keep everybody out.
    const auto limit = fHouse.hub->options().limits.unauthenticatedConnections;
    std::size_t count = 0;
    Guest* oldest = nullptr;
    for (auto* guest : fHouse.guests) {
        if (guest->isAuthenticated() || !guest->isOpen()) continue;
        if (oldest == nullptr) oldest = guest;
        ++count;
    }
    if (count < limit) return;
    fHouse.hub->peerLog().write("too many connections that have not upgraded", {},
                                steady_clock::now());
    oldest->drop();
}

void Server::tick() {
    const auto now = steady_clock::now();
    fIsTicking = !fHouse.guests.empty() || !fHouse.hub->isEmpty();
    if (!fIsTicking) return;
    // Armed first: whatever is thrown below, the limits go on being kept.
    fTick.expires_after(fPeriod);
    fTick.async_wait([this](const error_code& error) {
        if (!error) tick();
    });
    fHouse.hub->tick(now);
    const std::vector<Guest*> guests(fHouse.guests.begin(), fHouse.guests.end());
    for (auto* guest : guests) guest->checkDeadline(now);
    if (fIsStopping && now >= fStopBy) dropGuests(true);
}

void Server::stop() noexcept {
    if (!fThread.joinable()) return;
    asio::post(fContext, [this] { beginStop(); });
    fThread.join();
}

void Server::beginStop() {
    // Nothing but the connections keeps the context running from here on.
    fIsStopping = true;
    fStopBy = steady_clock::now() + kFarewell;
    error_code ignored;
    fAcceptor.close(ignored);
    fRetry.cancel();
    dropGuests(false);
    fHouse.hub->shut();
    // Looks at the time more often now, since the end waits for it.
    fPeriod = kStoppingPeriod;
    if (fIsTicking) tick();
}

void Server::dropGuests(bool authenticatedToo) noexcept {
    for (auto* guest : fHouse.guests) {
        if (authenticatedToo || !guest->isAuthenticated()) guest->drop();
    }
}

}  // namespace kirogateway
