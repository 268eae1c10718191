#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <memory>

#include "kirogateway/Options.hpp"

namespace kirogateway {

/// What a gateway needs of the system before it can serve. Each throws std::system_error, whose
/// text is one line that names the address or the file.

/// A socket that listens where `options` say. REQUIRES: they have been checked.
[[nodiscard]] boost::asio::ip::tcp::acceptor listenOn(boost::asio::io_context& context,
                                                      const Options& options);

/// Certificate and key of `options`; none if there is no certificate.
[[nodiscard]] std::unique_ptr<boost::asio::ssl::context> tlsOf(const Options& options);

/// A program that this one starts must not keep a port or a page's connection open.
/// REQUIRES: `descriptor` is open.
void closeOnExec(int descriptor) noexcept;

}  // namespace kirogateway
