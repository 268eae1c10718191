#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Service.hpp"

namespace link_tool {

/// The metrics, in the text format of Prometheus. They name no channel, session, page or secret.
[[nodiscard]] std::string metricsText(const ServiceReport& report);

/// A second, small HTTP server, for those who look after the program: "/healthz" and "/metrics". It
/// runs on the thread that runs its context.
class StatusServer {
  public:
    /// Listens. Throws as `kirogateway::Gateway`. `report` is called for each request.
    /// REQUIRES: `context` outlives it, and runs no more when it is destroyed.
    StatusServer(boost::asio::io_context& context, const std::string& address, std::uint16_t port,
                 std::function<ServiceReport()> report);
    [[nodiscard]] std::uint16_t port() const { return fAcceptor.local_endpoint().port(); }
    /// To be called about every 50 ms: accepts again when that failed. Throws std::bad_alloc.
    void tick();

  private:
    class Connection;
    /// What connections use. A context destroys theirs when this server may be gone.
    struct Shared {
        const std::function<ServiceReport()> report;
        std::size_t connections = 0;
    };

    void accept();

    boost::asio::ip::tcp::acceptor fAcceptor;
    const std::shared_ptr<Shared> fShared;
    bool fIsAccepting = false;
};

}  // namespace link_tool
