#include "Endpoint.hpp"

#include <fcntl.h>
#include <openssl/ssl.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

#include "checked/Require.hpp"
#include "served/Host.hpp"
#include "text/Escape.hpp"

namespace kirogateway {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::size_t kMostOfPath = 4096;

std::string quoted(std::string_view path) { return '"' + text::escaped(path, kMostOfPath) + '"'; }

/// Throws if there is an `error`. A type that needs no Boost to catch, and a text without the
/// place in a library where the error was made.
void check(const error_code& error, const std::string& what) {
    if (error) throw std::system_error(error, what);
}

const char* adviceOn(const error_code& error) {
    if (error == asio::error::address_in_use) return " (choose another port, or 0 for a free one)";
    if (error == asio::error::access_denied) return " (choose a port above 1023, or 0)";
    if (error == boost::system::errc::address_not_available) {
        return " (choose an address of this machine, such as 127.0.0.1)";
    }
    return "";
}

}  // namespace

tcp::acceptor listenOn(asio::io_context& context, const Options& options) {
    const auto address = asio::ip::make_address(options.address);
    const tcp::endpoint endpoint(address, options.port);
    const auto name = served::hostOfUrl(options.address) + ":" + std::to_string(options.port);
    tcp::acceptor acceptor(context);
    error_code error;
    acceptor.open(endpoint.protocol(), error);
    if (!error) {
        closeOnExec(acceptor.native_handle());
        acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    }
    if (!error) acceptor.bind(endpoint, error);
    if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
    check(error, "cannot listen on " + name + adviceOn(error));
    return acceptor;
}

std::unique_ptr<asio::ssl::context> tlsOf(const Options& options) {
    if (options.certificateFile.empty()) return nullptr;
    // Asio would go on without one where OpenSSL has not even the memory to say why there is none.
    std::unique_ptr<SSL_CTX, decltype(&::SSL_CTX_free)> made(::SSL_CTX_new(::TLS_server_method()),
                                                             &::SSL_CTX_free);
    if (made == nullptr) throw std::bad_alloc();
    auto tls = std::make_unique<asio::ssl::context>(made.get());
    static_cast<void>(made.release());  // `tls` has it
    tls->set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1 |
                     asio::ssl::context::no_compression);
    // OpenSSL would ask for the passphrase of a key on the terminal.
    tls->set_password_callback([](std::size_t, auto) { return std::string(); });
    error_code error;
    tls->use_certificate_chain_file(options.certificateFile, error);
    check(error, "certificateFile: " + quoted(options.certificateFile) +
                     " is no PEM file that can be read");
    tls->use_private_key_file(options.keyFile, asio::ssl::context::pem, error);
    check(error, "keyFile: " + quoted(options.keyFile) +
                     " is no PEM file with the certificate's key, without a passphrase");
    return tls;
}

void closeOnExec(int descriptor) noexcept {
    KIROWEB_REQUIRE(descriptor >= 0);
    static_cast<void>(::fcntl(descriptor, F_SETFD, FD_CLOEXEC));
}

}  // namespace kirogateway
