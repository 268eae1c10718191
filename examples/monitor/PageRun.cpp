#include "PageRun.hpp"

#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "Console.hpp"
#include "PageServer.hpp"
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
        throw std::runtime_error(file.string() + ": cannot be written");
    }
}

/// What the gateway logs has no line breaks, and comes at a bounded rate.
kirohost::Scope sayWhatTheGatewayLogs() {
    return kirohost::observeLog([](const kirohost::LogRecord& record) {
        if (record.logger == "gateway") say("gateway: " + record.text);
    });
}

void sayTimeout(const Options& options, const kirogateway::Gateway& gateway, bool announced,
                const std::deque<engine::Latency>& latest) {
    const std::string pages = gateway.diagnostics();
    const std::string cause = timeoutCause(announced, pages);
    say("a flush timed out: " + cause);
    if (!options.diagnostics) return;
    try {
        writeDiagnostics(*options.diagnostics, cause, pages, latest);
    } catch (const std::runtime_error& error) {
        say(error.what());
    }
}

/// Asks the gateway, and says when the answer has changed.
bool isClientGone(const kirogateway::Gateway& gateway, bool& before) {
    const bool gone = gateway.lastPageGone();
    if (std::exchange(before, gone) != gone) say(gone ? "client gone" : "client there");
    return gone;
}

void printResult(const engine::EngineResult& result) {
    std::cout << result.frames << " frames: " << result.complete << " drawn, " << result.failed
              << " failed, " << result.timedOut << " timed out, " << result.clientsGone
              << " without a client at the end; " << result.endedByNewView
              << " attempts ended by a new view, " << result.endedByReconnection
              << " by a reconnection" << std::endl;
}

}  // namespace

int runForPages(const Options& options) {
    const Signals signals([] { kirohost::wakeInterpreter(); });
    const engine::DataSet data = engine::readDataSet(options.data);
    if (options.diagnostics) requireWritable(*options.diagnostics);
    configureHost(options);
    const kirohost::Scope gatewayLog = sayWhatTheGatewayLogs();
    kirogateway::Gateway gateway(gatewayOptions(options));
    std::cout << gateway.link() << std::endl;
    if (options.opensBrowser) openBrowser(gateway.singleUseLink());

    bool gone = false;
    // Shared with a callback that may still run when the engine has ended.
    const auto errors = std::make_shared<ErrorLines>();
    engine::Engine::Hooks hooks;
    hooks.stopped = [&signals] { return signals.came(); };
    hooks.clientGone = [&gateway, &gone] { return isClientGone(gateway, gone); };
    hooks.timedOut = [&](bool announced, const std::deque<engine::Latency>& latest) {
        sayTimeout(options, gateway, announced, latest);
    };
    hooks.clientError = [errors](const std::string& error) { errors->add(error); };
    hooks.frameOver = [errors](std::uint64_t /*frames*/) { errors->look(); };
    engine::Engine engine(data, nullptr, hooks);
    const engine::EngineResult result =
        engine.run({options.frames, options.duration, options.speed});
    errors->end();
    printResult(result);
    return 0;
}

}  // namespace monitor
