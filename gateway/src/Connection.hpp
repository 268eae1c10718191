#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <list>
#include <memory>

#include "AccessPolicy.hpp"
#include "Hub.hpp"

namespace kirogateway {

/// A connection, as the server sees it. The gateway's thread.
class Guest {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    Guest() = default;
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;
    virtual ~Guest() = default;

    /// Whether it has upgraded, which needs the token.
    [[nodiscard]] virtual bool isAuthenticated() const noexcept = 0;
    /// Whether its socket is.
    [[nodiscard]] virtual bool isOpen() const noexcept = 0;
    /// Ends what has lasted too long.
    virtual void checkDeadline(TimePoint now) = 0;
    /// Closes the socket.
    virtual void drop() noexcept = 0;
};

/// What connections share. It outlives them.
struct House {
    std::shared_ptr<Hub> hub;
    std::unique_ptr<AccessPolicy> access;
    std::unique_ptr<boost::asio::ssl::context> tls;  ///< empty: none
    std::list<Guest*> guests;                        ///< oldest first
};

/// Starts to serve a connection, which lives until it has ended.
void serve(boost::asio::ip::tcp::socket socket, House& house);

}  // namespace kirogateway
