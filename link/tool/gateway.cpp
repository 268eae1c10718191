// kiroweb-gateway: serves the pages of engines on other machines.
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/program_options.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "Log.hpp"
#include "NatsCluster.hpp"
#include "Service.hpp"
#include "Settings.hpp"
#include "Status.hpp"
#include "kirogateway/Version.hpp"
#include "kirohost/Controls.hpp"
#include "served/Host.hpp"

namespace {

namespace asio = boost::asio;
namespace po = boost::program_options;
using namespace link_tool;
using std::chrono::steady_clock;

constexpr const char* kHelp =
    R"(kiroweb-gateway: serves the pages of engines that are reached over a NATS cluster.

Usage: kiroweb-gateway [--config] FILE

A session NAME is at /s/NAME/ as long as its engine is heard. Runs until SIGINT or SIGTERM; pages go
to another gateway then. The status address has /healthz and /metrics (Prometheus).

Options:
  --config FILE  lines "key = value", # begins a comment
  --help         show this
  --version      show the version

Keys, and what holds without them:
)";

constexpr const char* kStatuses = R"(
Exit status:
  0  ended by a signal
  1  an address cannot be had, or another failure
  2  a wrong option or value
)";

enum Status { kGood = 0, kFailed = 1, kWrong = 2 };

constexpr std::chrono::milliseconds kTick{50};

po::variables_map parse(int argc, char** argv) {
    po::options_description options;
    options.add_options()("help", "")("version", "")("config", po::value<std::string>(), "");
    po::variables_map given;
    namespace style = po::command_line_style;
    try {
        po::store(po::command_line_parser(argc, argv)
                      .options(options)
                      .positional(po::positional_options_description().add("config", 1))
                      .style(style::unix_style & ~style::allow_guessing)
                      .run(),
                  given);
    } catch (const po::error& error) {
        throw WrongSetting(std::string(error.what()) + "; see --help");
    }
    return given;
}

/// Until a signal comes.
void serve(const Settings& settings) {
    asio::io_context context{1};
    asio::signal_set signals(context, SIGINT, SIGTERM);
    auto nats = settings.cluster;
    nats.log = [](std::string_view line) { logLine(line); };
    const auto cluster = kirolink::connectNats(std::move(nats));
    Service service(settings, *cluster);
    StatusServer status(context, settings.statusAddress, settings.statusPort,
                        [&service] { return service.report(steady_clock::now()); });
    logLine("serving", {}, service.address());
    logLine("status", {},
            "http://" + served::hostOfUrl(settings.statusAddress) + ":" +
                std::to_string(status.port()));

    signals.async_wait([&context](const boost::system::error_code&, int signal) {
        logLine("stopping", {}, signal == SIGTERM ? "SIGTERM" : "SIGINT");
        context.stop();
    });
    while (!context.stopped()) {
        service.tick(steady_clock::now());
        try {
            context.run_for(kTick);
            status.tick();
        } catch (const std::exception& error) {
            logLine("the status was not told", {}, error.what());
        }
    }
    service.stop();
    logLine("stopped");
}

int run(int argc, char** argv) {
    // Whoever reads the log may go away.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    const auto given = parse(argc, argv);
    if (given.count("help") != 0) {
        std::printf("%s%s%s", kHelp, settingsHelp(), kStatuses);
        return kGood;
    }
    if (given.count("version") != 0) {
        std::printf("kiroweb-gateway %s\n", KIROGATEWAY_VERSION);
        return kGood;
    }
    if (given.count("config") == 0) throw WrongSetting("a configuration is needed; see --help");
    const auto settings = readSettings(given["config"].as<std::string>());
    // What the gateway has to say of pages.
    const auto scope = kirohost::observeLog([](const kirohost::LogRecord& record) {
        if (record.logger == "gateway") logLine(record.text);
    });
    serve(settings);
    return kGood;
}

int complain(Status status, const std::exception& error) noexcept {
    std::fprintf(stderr, "kiroweb-gateway: %s\n", error.what());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const WrongSetting& error) {
        return complain(kWrong, error);
    } catch (const std::invalid_argument& error) {
        return complain(kWrong, error);
    } catch (const std::exception& error) {
        return complain(kFailed, error);
    }
}
