#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <list>
#include <memory>
#include <optional>

#include "Connection.hpp"
#include "Site.hpp"
#include "Wakeup.hpp"

namespace kirogateway {

/// A connection as the server sees it, from its first byte on. The gateway's thread.
class ServedConnection : public Connection {
  public:
    /// Whether it has upgraded, which needs the token.
    [[nodiscard]] virtual bool isAuthenticated() const noexcept = 0;
    /// Whether it has not been given up yet.
    [[nodiscard]] virtual bool isOpen() const noexcept = 0;
    /// Ends what has lasted too long.
    virtual void checkTime(TimePoint now) noexcept = 0;
    /// Gives the connection up.
    virtual void drop() noexcept = 0;
};

/// What connections share. It outlives them.
struct ServerContext {
    std::shared_ptr<Context> context;  ///< the root's
    std::shared_ptr<Wakeup> wakeup;
    std::optional<Sites> sites;                      ///< there when connections are
    std::unique_ptr<boost::asio::ssl::context> tls;  ///< empty: none
    std::list<ServedConnection*> connections;        ///< oldest first
};

/// Starts to serve a connection, which lives until it has ended. Throws std::bad_alloc and
/// boost::system::system_error; the connection has ended then.
void serve(boost::asio::ip::tcp::socket socket, ServerContext& context);

}  // namespace kirogateway
