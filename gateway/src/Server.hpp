#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <memory>
#include <thread>

#include "Connection.hpp"

namespace kirogateway {

/// The listening socket and the gateway's thread.
class Server {
  public:
    /// Listens. Throws as `Gateway` does.
    explicit Server(std::shared_ptr<Hub> hub);
    ~Server() { stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    [[nodiscard]] std::uint16_t port() const noexcept { return fPort; }

    /// Begins to accept, on a thread of its own. Throws std::system_error.
    void start(std::unique_ptr<AccessPolicy> access);
    /// Closes what is open and ends the thread. REQUIRES: not on that thread.
    void stop() noexcept;

  private:
    using TimePoint = std::chrono::steady_clock::time_point;

    void run() noexcept;
    void accept();
    void onAccepted(const boost::system::error_code& error, boost::asio::ip::tcp::socket socket);
    void admit(boost::asio::ip::tcp::socket socket);
    void evictOldest();
    void tick();
    void beginStop();
    void dropGuests(bool authenticatedToo) noexcept;

    House fHouse;  ///< outlives the connections, which are in the context's handlers
    boost::asio::io_context fContext{1};
    boost::asio::ip::tcp::acceptor fAcceptor;
    boost::asio::steady_timer fTick;
    boost::asio::steady_timer fRetry;
    std::chrono::milliseconds fPeriod{0};
    std::uint16_t fPort = 0;
    bool fIsTicking = false;
    bool fIsStopping = false;
    TimePoint fStopBy;
    std::thread fThread;
};

}  // namespace kirogateway
