#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "ServedConnection.hpp"

namespace kirogateway {

/// The listening socket and the gateway's thread. Nothing that is thrown on that thread ends it:
/// it arms again what was lost, as soon as there is memory.
class Server {
  public:
    /// Listens. Throws as `Gateway` does. `context`: of the root, whose limits hold for connections
    /// until their sites are known, and for how many there are.
    Server(std::shared_ptr<Context> context, std::shared_ptr<Wakeup> wakeup);
    ~Server() { stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    [[nodiscard]] std::uint16_t port() const noexcept { return fPort; }

    /// Begins to accept, on a thread of its own. Throws std::system_error.
    /// REQUIRES: the bus of each site outlives the server's thread.
    void start(Sites sites);
    /// Closes what is open and ends the thread. REQUIRES: not on that thread.
    void stop() noexcept;

    /// Has `call` called with the sites, on the gateway's thread; what it throws is logged. Dropped
    /// silently once the server stops. Any thread. Throws std::bad_alloc.
    void post(std::function<void(Sites&)> call);

  private:
    using TimePoint = std::chrono::steady_clock::time_point;
    using ErrorCode = boost::system::error_code;

    /// Something that is waited for all the time. It notes, by the end of its handler, that it has
    /// to be armed again: whether that was called or lost for lack of memory.
    template <typename Call>
    class Armed {
      public:
        Armed(bool& isArmed, Call call) : fIsArmed(&isArmed), fCall(std::move(call)) {}
        Armed(Armed&& other) noexcept
            : fIsArmed(std::exchange(other.fIsArmed, nullptr)), fCall(std::move(other.fCall)) {}
        Armed& operator=(Armed&&) = delete;
        Armed(const Armed&) = delete;
        Armed& operator=(const Armed&) = delete;
        ~Armed() {
            if (fIsArmed != nullptr) *fIsArmed = false;
        }
        template <typename... Arguments>
        void operator()(Arguments&&... arguments) {
            *std::exchange(fIsArmed, nullptr) = false;
            fCall(std::forward<Arguments>(arguments)...);
        }

      private:
        bool* fIsArmed;
        Call fCall;
    };

    void run() noexcept;
    void runOnce();
    void arm();
    void awaitBell();
    void accept();
    void onAccepted(const ErrorCode& error, boost::asio::ip::tcp::socket socket);
    void admit(boost::asio::ip::tcp::socket socket);
    void evictOldest() noexcept;
    void awaitTick();
    void tick() noexcept;
    void beginStop() noexcept;
    void dropConnections(bool authenticatedToo) noexcept;
    [[nodiscard]] GuardedLog& log() noexcept { return fShared.context->log; }

    ServerContext fShared;  ///< outlives the connections, which are in the context's handlers
    boost::asio::io_context fContext{1};
    boost::asio::ip::tcp::acceptor fAcceptor;
    boost::asio::posix::stream_descriptor fBell;  ///< of the wake-up
    boost::asio::steady_timer fTick;
    boost::asio::steady_timer fRetry;
    std::chrono::milliseconds fPeriod{0};
    std::uint16_t fPort = 0;
    bool fIsAccepting = false;
    bool fIsListening = false;  ///< to the bell
    bool fIsTicking = false;
    bool fIsStopping = false;
    TimePoint fStopBy;
    std::atomic<bool> fMustStop{false};
    std::thread fThread;
};

}  // namespace kirogateway
