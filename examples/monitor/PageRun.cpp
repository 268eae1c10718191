#include "PageRun.hpp"

#include <boost/json/serialize.hpp>
#include <boost/json/string.hpp>
#include <deque>
#include <iostream>
#include <string>
#include <utility>

#include "PageServer.hpp"
#include "Signals.hpp"
#include "Timeout.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "kirogateway/Gateway.hpp"
#include "kirohost/Controls.hpp"

namespace monitor {

namespace {

/// One line, whole, whichever thread says it.
void say(const std::string& text) { std::cerr << ("monitor: " + text + '\n') << std::flush; }

/// The time-out logging must be on before the engine makes its requestor.
void configureHost(const Options& options) {
    auto settings = kirohost::settings();
    settings.drawnowTimeoutSeconds = options.timeout.count();
    settings.drawnowTimeoutLogging = true;
    kirohost::setSettings(std::move(settings));
}

/// The error as it may be shown: on one line, without control characters, and short.
void sayError(const std::string& error) {
    constexpr std::size_t kLongest = 300;
    say("script error " + boost::json::serialize(boost::json::string(error.substr(0, kLongest))));
}

void sayTimeout(const Options& options, const kirogateway::Gateway& gateway, bool announced,
                const std::deque<engine::Latency>& latest) {
    const std::string pages = gateway.diagnostics();
    const std::string cause = timeoutCause(announced, pages);
    say("a flush timed out: " + cause);
    if (options.diagnostics) writeDiagnostics(*options.diagnostics, cause, pages, latest);
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
    configureHost(options);
    kirogateway::Gateway gateway(gatewayOptions(options));
    std::cout << gateway.link() << std::endl;
    if (options.opensBrowser) openBrowser(gateway.singleUseLink());

    bool gone = false;
    engine::Engine::Hooks hooks;
    hooks.stopped = [&signals] { return signals.came(); };
    hooks.clientGone = [&gateway, &gone] { return isClientGone(gateway, gone); };
    hooks.timedOut = [&](bool announced, const std::deque<engine::Latency>& latest) {
        sayTimeout(options, gateway, announced, latest);
    };
    hooks.clientError = sayError;
    engine::Engine engine(data, nullptr, hooks);
    printResult(engine.run({options.frames, options.duration, options.speed}));
    return 0;
}

}  // namespace monitor
