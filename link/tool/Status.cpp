#include "Status.hpp"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <cstdio>
#include <utility>

#include "Endpoint.hpp"
#include "Log.hpp"

namespace link_tool {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
using boost::asio::ip::tcp;

constexpr std::size_t kMostConnections = 16;
constexpr std::chrono::seconds kPatience{5};

/// Lines of one metric.
void metric(std::string& text, const char* name, const char* type, const char* help, double value) {
    char number[32]{};
    std::snprintf(number, sizeof(number), "%.17g", value);
    const auto full = std::string("kiroweb_gateway_") + name;
    text += "# HELP " + full + ' ' + help + "\n# TYPE " + full + ' ' + type + '\n' + full + ' ' +
            number + '\n';
}

double seconds(std::chrono::microseconds time) {
    return std::chrono::duration<double>(time).count();
}

/// What is measured, and how it is taken from a report.
template <typename Value>
struct Metric {
    const char* name;
    const char* help;
    Value (*value)(const ServiceReport& all);
};

constexpr Metric<double> kGauges[] = {
    {"connected", "Whether the cluster is connected",
     [](const ServiceReport& all) { return all.isConnected ? 1.0 : 0.0; }},
    {"sessions_known", "Sessions whose engines are heard",
     [](const ServiceReport& all) { return static_cast<double>(all.known); }},
    {"sessions_followed", "Sessions that a page asked for",
     [](const ServiceReport& all) { return static_cast<double>(all.followed); }},
    {"sessions_joined", "Sessions whose engines are followed without a gap",
     [](const ServiceReport& all) { return static_cast<double>(all.joined); }},
    {"pages", "Pages that are there",
     [](const ServiceReport& all) { return static_cast<double>(all.pages); }},
    {"held_bytes", "Bytes that wait for pages",
     [](const ServiceReport& all) { return static_cast<double>(all.held); }},
    {"held_bytes_most", "Bytes that wait for the pages of one session, the most",
     [](const ServiceReport& all) { return static_cast<double>(all.heldOfOne); }},
    {"unacknowledged_bytes", "Bytes that engines have not said that they have",
     [](const ServiceReport& all) { return static_cast<double>(all.waiting); }},
    {"engine_silence_seconds", "How long an engine has been silent, the longest",
     [](const ServiceReport& all) { return seconds(all.silence); }},
    {"clock_offset_seconds", "How far an engine's clock is off this one, the largest",
     [](const ServiceReport& all) { return seconds(all.clockOffset); }},
    {"clock_uncertainty_seconds", "How uncertain that is, the largest",
     [](const ServiceReport& all) { return seconds(all.clockUncertainty); }},
};

constexpr Metric<std::uint64_t> kCounters[] = {
    {"link_frames_received_total", "Frames from engines",
     [](const ServiceReport& all) { return all.link.framesReceived; }},
    {"link_bytes_received_total", "Bytes from engines",
     [](const ServiceReport& all) { return all.link.bytesReceived; }},
    {"link_frames_sent_total", "Frames to engines",
     [](const ServiceReport& all) { return all.link.framesSent; }},
    {"link_bytes_sent_total", "Bytes to engines",
     [](const ServiceReport& all) { return all.link.bytesSent; }},
    {"link_gaps_total", "Times that something of an engine's was missing",
     [](const ServiceReport& all) { return all.link.gaps; }},
    {"link_resends_total", "Frames that came again because they were missing",
     [](const ServiceReport& all) { return all.link.resends; }},
    {"link_refusals_total", "Frames that could not be read",
     [](const ServiceReport& all) { return all.link.refusals; }},
    {"views_total", "Views that began", [](const ServiceReport& all) { return all.traffic.views; }},
    {"returns_total", "Views that went on after a lost connection",
     [](const ServiceReport& all) { return all.traffic.returns; }},
    {"texts_sent_total", "Texts queued for pages",
     [](const ServiceReport& all) { return all.traffic.textsSent; }},
    {"blocks_delivered_total", "Blocks that all pages have",
     [](const ServiceReport& all) { return all.traffic.blocksDelivered; }},
    {"blocks_given_back_total", "Blocks that not all pages have",
     [](const ServiceReport& all) { return all.traffic.blocksGivenBack; }},
    {"texts_received_total", "Texts from pages",
     [](const ServiceReport& all) { return all.traffic.textsReceived; }},
    {"blocks_received_total", "Blocks from pages",
     [](const ServiceReport& all) { return all.traffic.blocksReceived; }},
    {"refusals_total", "Requests of pages that were refused",
     [](const ServiceReport& all) { return all.traffic.refusals; }},
    {"disconnected_total", "Pages closed by the gateway",
     [](const ServiceReport& all) { return all.traffic.disconnected; }},
};

kirogateway::Options optionsOf(const std::string& address, std::uint16_t port) {
    kirogateway::Options options;
    options.address = address;
    options.port = port;
    return options;
}

}  // namespace

std::string metricsText(const ServiceReport& report) {
    std::string text;
    for (const auto& [name, help, value] : kGauges)
        metric(text, name, "gauge", help, value(report));
    for (const auto& [name, help, value] : kCounters) {
        metric(text, name, "counter", help, static_cast<double>(value(report)));
    }
    return text;
}

/// One connection, for one request.
class StatusServer::Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(tcp::socket socket, std::shared_ptr<Shared> shared)
        : fStream(std::move(socket)), fShared(std::move(shared)) {
        ++fShared->connections;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { --fShared->connections; }

    void start() {
        fStream.expires_after(kPatience);
        http::async_read(fStream, fBuffer, fRequest,
                         [self = shared_from_this()](beast::error_code error, std::size_t) {
                             if (!error) self->answer();
                         });
    }

  private:
    void answer() {
        const auto method = fRequest.method();
        const bool isRead = method == http::verb::get || method == http::verb::head;
        const std::string target(fRequest.target());
        fResponse.version(fRequest.version());
        fResponse.keep_alive(false);
        fResponse.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
        fResponse.set(http::field::cache_control, "no-store");
        if (!isRead) {
            say(http::status::method_not_allowed, "GET or HEAD\n");
        } else if (target == "/metrics") {
            say(http::status::ok, metricsText(fShared->report()));
        } else if (target == "/healthz") {
            const bool isWell = fShared->report().isConnected;
            isWell ? say(http::status::ok, "well\n")
                   : say(http::status::service_unavailable, "not connected to the cluster\n");
        } else {
            say(http::status::not_found, "/healthz or /metrics\n");
        }
        http::async_write(fStream, fResponse,
                          [self = shared_from_this()](beast::error_code, std::size_t) {
                              beast::error_code ignored;
                              self->fStream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                          });
    }
    void say(http::status status, std::string body) {
        fResponse.result(status);
        const auto size = body.size();
        if (fRequest.method() != http::verb::head) fResponse.body() = std::move(body);
        fResponse.content_length(size);
    }

    beast::tcp_stream fStream;
    const std::shared_ptr<Shared> fShared;
    beast::flat_buffer fBuffer{8192};
    http::request<http::string_body> fRequest;
    http::response<http::string_body> fResponse;
};

StatusServer::StatusServer(boost::asio::io_context& context, const std::string& address,
                           std::uint16_t port, std::function<ServiceReport()> report)
    : fAcceptor(kirogateway::listenOn(context, optionsOf(address, port))),
      fShared(std::make_shared<Shared>(Shared{std::move(report)})) {
    accept();
}

void StatusServer::tick() {
    if (!fIsAccepting) accept();
}

void StatusServer::accept() {
    fAcceptor.async_accept([this](beast::error_code error, tcp::socket socket) {
        fIsAccepting = false;
        if (error) return;  // out of descriptors, most likely: to try at once would be to spin
        // One too many is closed unanswered.
        if (fShared->connections < kMostConnections) {
            kirogateway::closeOnExec(socket.native_handle());
            std::make_shared<Connection>(std::move(socket), fShared)->start();
        }
        accept();
    });
    fIsAccepting = true;
}

}  // namespace link_tool
