#include "Server.hpp"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <system_error>

#include "Endpoint.hpp"
#include "checked/Require.hpp"
#include "process/Thread.hpp"

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
/// How long the thread waits when it could not even begin to wait for anything else.
constexpr int kWithoutMemory = 10;  // milliseconds

/// Limits are kept with a quarter of the shortest as error, without waking up all the time.
milliseconds periodOf(const Limits& limits) {
    const auto shortest = std::min({limits.request, limits.hello, limits.queue, limits.block,
                                    limits.ping, limits.gone, limits.comeback, limits.close});
    return std::clamp(shortest / 4, milliseconds(5), milliseconds(100));
}

int duplicateOf(int descriptor) {
    const int duplicate = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) throw std::system_error(errno, std::generic_category(), "fcntl");
    return duplicate;
}

/// All that is timed waits for a timer of the reactor, which does not look whether the kernel took
/// it on: one that was lost would leave time-outs and stopping to wait for ever.
void requireTimer(asio::io_context& context) {
    asio::steady_timer timer(context, milliseconds(0));
    timer.async_wait([](const error_code&) {});
    if (context.run_one_for(std::chrono::seconds(1)) > 0) return;
    throw std::system_error(std::make_error_code(std::errc::not_enough_memory),
                            "the gateway's timer does not run");
}

}  // namespace

Server::Server(std::shared_ptr<Context> context, std::shared_ptr<Wakeup> wakeup)
    : fShared{std::move(context), std::move(wakeup), std::nullopt, nullptr, {}},
      fAcceptor(listenOn(fContext, fShared.context->options)),
      fBell(fContext, duplicateOf(fShared.wakeup->descriptor())),
      fTick(fContext),
      fRetry(fContext) {
    requireTimer(fContext);
    const auto& options = fShared.context->options;
    fPeriod = periodOf(options.limits);
    fShared.tls = tlsOf(options);
    fPort = fAcceptor.local_endpoint().port();
}

void Server::start(Sites sites) {
    fShared.sites.emplace(std::move(sites));
    fThread = process::makeThread("the gateway", [this] { run(); });
}

void Server::post(std::function<void(Sites&)> call) {
    asio::post(fContext, [this, call = std::move(call)] {
        if (!fIsStopping) call(*fShared.sites);
    });
}

// --- The thread --------------------------------------------------------------------------------

void Server::run() noexcept {
    while (!fIsStopping || !fShared.connections.empty()) {
        try {
            runOnce();
        } catch (...) {
            // Lack of memory, most likely, which its connection has answered for already.
            log().writeCaught("the gateway's thread");
        }
    }
}

void Server::runOnce() {
    if (fMustStop && !fIsStopping) beginStop();
    if (fContext.stopped()) fContext.restart();
    try {
        arm();
    } catch (...) {
        // Whatever is armed goes on meanwhile, and the rest is tried again soon.
        log().writeCaught("the gateway's thread waits for memory");
        pollfd bell{fShared.wakeup->descriptor(), POLLIN, 0};
        static_cast<void>(::poll(&bell, 1, kWithoutMemory));
        fShared.wakeup->serveAll();
        fContext.poll();
        return;
    }
    // Only as long as nothing has to be armed: a handler that was lost leaves its mark.
    while (fIsListening && fContext.run_one() > 0) {
        const bool isOver = fMustStop || !fIsTicking || (!fIsAccepting && !fIsStopping);
        if (isOver) return;
    }
}

void Server::arm() {
    if (!fIsListening) awaitBell();
    if (!fIsAccepting && !fIsStopping) accept();
    const bool isIdle = fShared.connections.empty() && fShared.sites->areViewsEmpty();
    if (!fIsTicking && (!isIdle || fIsStopping)) awaitTick();
}

void Server::awaitBell() {
    fIsListening = true;
    fBell.async_wait(asio::posix::stream_descriptor::wait_read,
                     Armed(fIsListening, [this](const error_code& error) {
                         if (!error) fShared.wakeup->serveAll();
                     }));
}

// --- Accepting ---------------------------------------------------------------------------------

void Server::accept() {
    fIsAccepting = true;
    fAcceptor.async_accept(Armed(fIsAccepting, [this](const error_code& error, tcp::socket socket) {
        onAccepted(error, std::move(socket));
    }));
}

void Server::onAccepted(const error_code& error, tcp::socket socket) {
    if (fIsStopping) return;
    if (!error) return admit(std::move(socket));
    // Out of descriptors, most likely: to try again at once would be to spin.
    log().write("cannot accept", error.message());
    fIsAccepting = true;
    fRetry.expires_after(kAcceptAgain);
    fRetry.async_wait(Armed(fIsAccepting, [](const error_code&) {}));
}

void Server::admit(tcp::socket socket) {
    static constexpr std::string_view kFull =
        "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    const auto& limits = fShared.context->options.limits;
    error_code ignored;
    if (fShared.connections.size() >= limits.connections) {
        fShared.context->peerLog.write("too many connections", {});
        socket.non_blocking(true, ignored);
        socket.write_some(asio::buffer(kFull), ignored);
        return;
    }
    evictOldest();
    closeOnExec(socket.native_handle());
    socket.set_option(tcp::no_delay(true), ignored);
    serve(std::move(socket), fShared);
}

void Server::evictOldest() noexcept {
    // To refuse the newest would let a few silent connections keep everybody out.
    const auto limit = fShared.context->options.limits.unauthenticatedConnections;
    std::size_t count = 0;
    ServedConnection* oldest = nullptr;
    for (auto* connection : fShared.connections) {
        if (connection->isAuthenticated() || !connection->isOpen()) continue;
        if (oldest == nullptr) oldest = connection;
        ++count;
    }
    if (count < limit) return;
    fShared.context->peerLog.write("too many connections that have not upgraded", {});
    oldest->drop();
}

// --- Time and the end --------------------------------------------------------------------------

void Server::awaitTick() {
    fIsTicking = true;
    fTick.expires_after(fPeriod);
    fTick.async_wait(Armed(fIsTicking, [this](const error_code& error) {
        if (!error) tick();
    }));
}

void Server::tick() noexcept {
    const auto now = steady_clock::now();
    fShared.sites->tick(now);
    // One that is looked at may take itself off the list, but no other.
    for (auto at = fShared.connections.begin(); at != fShared.connections.end();) {
        auto* const connection = *at++;
        connection->checkTime(now);
    }
    if (fIsStopping && now >= fStopBy) dropConnections(true);
}

void Server::stop() noexcept {
    if (!fThread.joinable()) return;
    KIROWEB_REQUIRE(fThread.get_id() != std::this_thread::get_id());
    fMustStop = true;
    fShared.wakeup->ring();
    fThread.join();
    fShared.wakeup->close();
}

void Server::beginStop() noexcept {
    fIsStopping = true;
    fStopBy = steady_clock::now() + kFarewell;
    error_code ignored;
    fAcceptor.close(ignored);
    dropConnections(false);
    fShared.sites->shut();
    // Looks at the time more often now, since the end waits for it.
    fPeriod = kStoppingPeriod;
    fTick.cancel(ignored);
}

void Server::dropConnections(bool authenticatedToo) noexcept {
    for (auto* connection : fShared.connections) {
        if (authenticatedToo || !connection->isAuthenticated()) connection->drop();
    }
}

}  // namespace kirogateway
