#include "PageRun.hpp"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "Console.hpp"
#include "History.hpp"
#include "PageServer.hpp"
#include "PageWatch.hpp"
#include "Report.hpp"
#include "Signals.hpp"
#include "Timeout.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "kirogateway/Gateway.hpp"
#include "kirohost/Controls.hpp"

namespace monitor {

namespace {

/// The time-out logging must be on before the engine makes its requestor.
void configureHost(const Options& options) {
    auto settings = kirohost::settings();
    settings.drawnowTimeoutSeconds = options.timeout.count();
    settings.drawnowTimeoutLogging = true;
    kirohost::setSettings(std::move(settings));
}

/// Before anything else, instead of at the first time-out. Throws `std::runtime_error`.
void requireWritable(const std::filesystem::path& file) {
    if (!std::ofstream(file, std::ios::app)) {
        throw std::runtime_error(file.string() +
                                 ": cannot be written: " + std::generic_category().message(errno));
    }
}

/// What the gateway logs has no line breaks, and comes at a bounded rate.
kirohost::Scope sayWhatTheGatewayLogs() {
    return kirohost::observeLog([](const kirohost::LogRecord& record) {
        if (record.logger == "gateway") say("gateway: " + record.text);
    });
}

void sayTimeout(const Options& options, const Timeout& timeout, const History& history) {
    say("a flush timed out: " + timeout.cause);
    if (!options.diagnostics) return;
    try {
        writeFile(*options.diagnostics, diagnosticsText(options, timeout, history));
    } catch (const std::runtime_error& error) {
        say(error.what());
    }
}

kirogateway::Gateway makeGateway(const Options& options) {
    try {
        return kirogateway::Gateway(gatewayOptions(options));
    } catch (const std::system_error& error) {
        const bool isPort = error.code() == std::errc::address_in_use ||
                            error.code() == std::errc::permission_denied;
        if (options.port == 0 || !isPort) throw;
        throw std::runtime_error("--port " + std::to_string(options.port) + ": " +
                                 error.code().message() +
                                 "; take another one, or leave it out for one that is free");
    }
}

/// All but `timedOut`. REQUIRES: what is given by reference outlives the engine.
engine::Engine::Hooks pageHooks(const Signals& signals, const kirogateway::Gateway& gateway,
                                PageWatch& pages, const std::shared_ptr<ErrorLines>& errors) {
    engine::Engine::Hooks hooks;
    hooks.waiting = [&pages] { pages.waiting(); };
    hooks.stopped = [&signals] { return signals.came(); };
    hooks.clientGone = [&gateway, &pages] {
        const bool gone = gateway.lastPageGone();
        pages.note(gone);
        return gone;
    };
    hooks.clientError = [errors](const std::string& error) { errors->add(error); };
    hooks.frameOver = [&pages, errors,
                       before = std::uint64_t{0}](const engine::EngineResult& soFar) mutable {
        const std::uint64_t answers = soFar.complete + soFar.failed;
        if (std::exchange(before, answers) != answers) pages.answered();
        errors->look();
    };
    return hooks;
}

}  // namespace

bool runForPages(const Options& options, const Signals& signals) {
    const auto started = std::chrono::system_clock::now();
    const engine::DataSet data = engine::readDataSet(options.data);
    if (options.diagnostics) requireWritable(*options.diagnostics);
    configureHost(options);
    const History history;
    const kirohost::Scope gatewayLog = sayWhatTheGatewayLogs();
    kirogateway::Gateway gateway = makeGateway(options);
    print(gateway.link() + '\n');
    if (options.opensBrowser) openBrowser(gateway.singleUseLink());

    PageWatch pages({.ask = [&gateway] { return gateway.statistics(); },
                     .say = &say,
                     .repeatLink =
                         [&gateway] {
                             say("nobody has come yet; the link once more:");
                             print(gateway.link() + '\n');
                         }},
                    options.remind);
    // Shared with a callback that may still run when the engine has ended.
    const auto errors = std::make_shared<ErrorLines>();
    engine::Engine::Hooks hooks = pageHooks(signals, gateway, pages, errors);
    hooks.timedOut = [&options, &gateway, &history, started](
                         bool announced, const std::deque<engine::Latency>& latest) {
        const std::string known = gateway.diagnostics();
        const auto now = std::chrono::system_clock::now();
        sayTimeout(options, {started, now, timeoutCause(announced, known), known, latest}, history);
    };
    engine::Engine engine(data, nullptr, hooks);
    const engine::EngineResult result =
        engine.run({options.frames, options.duration, options.speed});
    errors->end();
    print(summaryText(result) + '\n');
    return isAllDrawn(options, result);
}

}  // namespace monitor
